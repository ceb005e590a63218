#pragma once

// Announces the CalDAV server on the local network: service type _caldavs._tcp with the subtype
// _nimbrel._sub._caldavs._tcp, TXT path=/, txtvers=1, id=, fp=, proto=. A name collision takes
// Avahi's alternative name. `registered` reports the name really published once Avahi confirms it,
// `failed` when it cannot be published; both follow every setName()/setService().

#include <QByteArray>
#include <QObject>
#include <QString>

struct AvahiEntryGroup;

namespace nimbrel::dnssd {
class DnssdClient;
}

namespace nimbrel::publish {

struct ServiceDescription
{
    QString name;        // wanted instance name ("bonjourName")
    quint16 port = 0;
    QString instanceId;  // id=
    QString fingerprint; // fp=
    int protocolVersion = 1;
    bool operator==(const ServiceDescription&) const = default;
};

class ServiceAnnouncer : public QObject
{
    Q_OBJECT
public:
    static constexpr const char* kServiceType = "_caldavs._tcp";
    static constexpr const char* kSubtype = "_nimbrel._sub._caldavs._tcp";

    explicit ServiceAnnouncer(dnssd::DnssdClient& client, QObject* parent = nullptr);
    ~ServiceAnnouncer() override;

    // Starts (or changes) the announcement. The outcome comes as registered() or failed().
    void announce(const ServiceDescription& service);
    // Withdraws it (Avahi sends the goodbye).
    void withdraw();

    // The name under which the service is published now, empty while it is not.
    QString publishedName() const { return m_published; }
    bool isAnnounced() const { return !m_published.isEmpty(); }

signals:
    void registered(const QString& name);
    void failed(const QString& reason);

private:
    static void groupCallback(AvahiEntryGroup* group, int state, void* userdata);
    void onGroupState(AvahiEntryGroup* group, int state);
    void registerService();
    void freeGroup();
    void fail(const QString& reason);

    dnssd::DnssdClient& m_client;
    ServiceDescription m_service;
    QString m_currentName; // the name being registered (after collisions, Avahi's alternative)
    QString m_published;
    AvahiEntryGroup* m_group = nullptr;
    bool m_wanted = false;
};

} // namespace nimbrel::publish

#pragma once

// Publishing as one piece for the background application: the TLS certificate, the HTTPS server with
// the request handler over a PublishedStore, the failed-password guard and the DNS-SD announcement.
//
//     CaldavPublisher publisher(store);
//     publisher.start({dataFolder, hostName, fixedPort, lastPort}, &error);  // serves at once
//     publisher.announce(bonjourName, instanceId);  // namePublished / nameFailed follow
//
// Serving does not depend on Avahi: without avahi-daemon the calendars are served, the log says why
// they are not announced, and the announcement is made when the daemon appears.

#include "Access.h"
#include "HttpServer.h"
#include "RequestHandler.h"
#include "ServerCertificate.h"

#include <QObject>
#include <memory>

namespace nimbrel::dnssd {
class DnssdClient;
}

namespace nimbrel::publish {

class ServiceAnnouncer;

struct PublisherConfig
{
    QString dataFolder;    // where the certificate and its key are kept
    QString hostName;      // for the certificate's names
    quint16 fixedPort = 0; // the port to serve on; 0 = automatic
    quint16 lastPort = 0;  // automatic: the port used last time, taken again when it is free
    ServerLimits limits;
    bool tls = true;       // false only for tests of the handler
};

class CaldavPublisher : public QObject
{
    Q_OBJECT
public:
    static constexpr int kProtocolVersion = 1; // proto= in the TXT record

    explicit CaldavPublisher(PublishedStore& store, QObject* parent = nullptr);
    ~CaldavPublisher() override;

    // Makes or loads the certificate and listens. A fixed port that is taken is an error; an
    // automatic one falls back to any free port. Returns false with *error when nothing could be served.
    bool start(const PublisherConfig& config, QString* error);
    // Withdraws the announcement (the goodbye) and closes the server.
    void stop();
    bool isServing() const { return m_server.isRunning(); }
    quint16 port() const { return m_server.port(); }
    QString fingerprint() const { return m_certificate.fingerprint; }

    // Announces the server under `name` (again, after a change of name or port).
    void announce(const QString& name, const QString& instanceId);
    void withdraw();
    QString publishedName() const;

signals:
    void namePublished(const QString& name); // Avahi confirmed the registration under this name
    void nameFailed(const QString& reason);  // it could not be announced (no daemon, refused)

private:
    FailedPasswordGuard m_guard;
    RequestHandler m_handler;
    HttpServer m_server;
    ServerCertificate m_certificate;
    std::unique_ptr<dnssd::DnssdClient> m_dnssd;
    std::unique_ptr<ServiceAnnouncer> m_announcer;
};

} // namespace nimbrel::publish

#pragma once

// One Avahi client on the Qt main loop, kept alive across the daemon's life: when avahi-daemon is not
// there the client waits for it (or, without a system bus, retries with a growing delay), and when
// the daemon restarts the client is made anew. Publishers and browsers build on it and re-register
// whenever it reports `ready`.

#include <QObject>
#include <QString>
#include <QTimer>

struct AvahiClient;

namespace nimbrel::dnssd {

class DnssdClient : public QObject
{
    Q_OBJECT
public:
    enum class State { Stopped, Connecting, Running, Unavailable };
    Q_ENUM(State)

    explicit DnssdClient(QObject* parent = nullptr);
    ~DnssdClient() override;

    void start();
    void stop();

    State state() const { return m_state; }
    // The client, only while Running (registering or established); null otherwise.
    AvahiClient* client() const { return m_state == State::Running ? m_client : nullptr; }
    // Why the client is not running, for the log.
    QString reason() const { return m_reason; }

    static constexpr int kFirstRetryMs = 1000;
    static constexpr int kMaxRetryMs = 60000;

signals:
    // The client runs: (re)register services and browsers on client().
    void ready();
    // The client went away (daemon gone, restarting, host name collision): whatever was
    // registered on it is gone too.
    void lost(const QString& reason);
    void stateChanged(nimbrel::dnssd::DnssdClient::State state);

private:
    static void callback(AvahiClient* client, int state, void* userdata);
    void create();
    void destroy();
    void onClientState(AvahiClient* client, int state);
    void setState(State state, const QString& reason = {});

    AvahiClient* m_client = nullptr;
    State m_state = State::Stopped;
    QString m_reason;
    QTimer m_retry;
    int m_retryMs = kFirstRetryMs;
};

} // namespace nimbrel::dnssd

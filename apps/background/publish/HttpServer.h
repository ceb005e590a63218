#pragma once

// The HTTPS server: libmicrohttpd in its external-epoll mode on the Qt main loop (one socket notifier
// on its epoll descriptor, one single-shot timer from its next time-out; no threads), so requests are
// answered on the main thread from the same state the bus service uses.

#include "HttpMessage.h"
#include "ServerCertificate.h"

#include <QObject>
#include <QSocketNotifier>
#include <QTimer>
#include <functional>
#include <memory>

struct MHD_Daemon;

namespace nimbrel::publish {

struct ServerLimits
{
    unsigned connections = 1500;          // open connections in all
    unsigned connectionsPerAddress = 64;  // from one client address
    unsigned idleTimeoutSeconds = 60;     // a connection that sends nothing for this long is closed
    size_t connectionMemory = 32 * 1024;  // request line and headers of one connection
    qint64 maxBodyBytes = 8 * 1024 * 1024;
};

class HttpServer : public QObject
{
    Q_OBJECT
public:
    using Handler = std::function<HttpResponse(const HttpRequest&)>;

    explicit HttpServer(Handler handler, QObject* parent = nullptr);
    ~HttpServer() override;

    // Listens on every address at `port` (0 = any free port); without a certificate, plain HTTP
    // (tests of the handler only). Returns false with *error when the port cannot be had.
    bool start(quint16 port, const ServerCertificate& certificate, const ServerLimits& limits, QString* error);
    void stop();

    bool isRunning() const { return m_daemon != nullptr; }
    quint16 port() const { return m_port; }
    const ServerLimits& limits() const { return m_limits; }

    // Called by the libmicrohttpd callbacks.
    Handler& handler() { return m_handler; }

    // libmicrohttpd passes run back to back before the event loop gets a turn (about 1 MiB of TLS records).
    static constexpr int kRoundsPerPass = 64;

private:
    void poll();
    void reschedule();

    Handler m_handler;
    ServerLimits m_limits;
    MHD_Daemon* m_daemon = nullptr;
    std::unique_ptr<QSocketNotifier> m_notifier;
    QTimer m_timer;
    quint16 m_port = 0;
    QByteArray m_certificatePem; // libmicrohttpd keeps pointers to these while it runs
    QByteArray m_keyPem;
};

} // namespace nimbrel::publish

#include "HttpServer.h"

#include "RequestHandler.h"
#include "logging/Log.h"

#include <microhttpd.h>

#include <arpa/inet.h>
#include <cstdarg>
#include <cstring>
#include <netinet/in.h>
#include <sys/resource.h>

namespace nimbrel::publish {

namespace {

// What one connection's request has gathered so far.
struct PendingRequest
{
    HttpRequest request;
    bool tooLarge = false;
};

QByteArray peerAddress(MHD_Connection* connection)
{
    const MHD_ConnectionInfo* info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CLIENT_ADDRESS);
    if (!info || !info->client_addr)
        return {};
    char text[INET6_ADDRSTRLEN] = {};
    const sockaddr* sa = info->client_addr;
    if (sa->sa_family == AF_INET)
        inet_ntop(AF_INET, &reinterpret_cast<const sockaddr_in*>(sa)->sin_addr, text, sizeof text);
    else if (sa->sa_family == AF_INET6)
        inet_ntop(AF_INET6, &reinterpret_cast<const sockaddr_in6*>(sa)->sin6_addr, text, sizeof text);
    QByteArray address(text);
    // The dual-stack socket shows IPv4 clients as mapped IPv6 addresses.
    if (address.startsWith("::ffff:") && address.contains('.'))
        address.remove(0, 7);
    return address;
}

MHD_Result collectHeader(void* cls, MHD_ValueKind, const char* key, const char* value)
{
    auto* request = static_cast<HttpRequest*>(cls);
    if (request->headers.size() < 100)
        request->headers.append({QByteArray(key), QByteArray(value ? value : "")});
    return MHD_YES;
}

MHD_Result queue(MHD_Connection* connection, const HttpResponse& response, bool close = false)
{
    // The body is handed over, not copied: large answers are megabytes.
    auto* body = new QByteArray(response.body);
    MHD_Response* r = MHD_create_response_from_buffer_with_free_callback_cls(
        size_t(body->size()), body->data(), [](void* cls) { delete static_cast<QByteArray*>(cls); }, body);
    if (!r)
        delete body;
    if (!r)
        return MHD_NO;
    for (const auto& [key, value] : response.headers)
        MHD_add_response_header(r, key.constData(), value.constData());
    if (close)
        MHD_add_response_header(r, MHD_HTTP_HEADER_CONNECTION, "close");
    const MHD_Result result = MHD_queue_response(connection, unsigned(response.status), r);
    MHD_destroy_response(r);
    return result;
}

MHD_Result access(void* cls, MHD_Connection* connection, const char* url, const char* method, const char*,
                  const char* uploadData, size_t* uploadSize, void** state)
{
    auto* server = static_cast<HttpServer*>(cls);
    auto* pending = static_cast<PendingRequest*>(*state);
    if (!pending) {
        pending = new PendingRequest;
        *state = pending;
        const char* length = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, MHD_HTTP_HEADER_CONTENT_LENGTH);
        if (length && std::strtoll(length, nullptr, 10) > server->limits().maxBodyBytes) {
            pending->tooLarge = true;
            return queue(connection, HttpResponse::text(413, "Request body too large"), true);
        }
        return MHD_YES;
    }
    if (*uploadSize > 0) {
        if (!pending->tooLarge && pending->request.body.size() + qint64(*uploadSize) > server->limits().maxBodyBytes)
            pending->tooLarge = true;
        if (!pending->tooLarge)
            pending->request.body.append(uploadData, qsizetype(*uploadSize));
        *uploadSize = 0;
        return MHD_YES;
    }
    if (pending->tooLarge)
        return queue(connection, HttpResponse::text(413, "Request body too large"), true);
    HttpRequest& request = pending->request;
    request.method = method;
    request.target = url;
    request.peer = peerAddress(connection);
    MHD_get_connection_values(connection, MHD_HEADER_KIND, collectHeader, &request);
    return queue(connection, server->handler()(request));
}

void completed(void*, MHD_Connection*, void** state, MHD_RequestTerminationCode)
{
    delete static_cast<PendingRequest*>(*state);
    *state = nullptr;
}

// The path stays percent-encoded: it is decoded segment by segment later, so that "%2F" stays
// inside its segment.
size_t keepEscapes(void*, MHD_Connection*, char* s)
{
    return std::strlen(s);
}

void logError(void*, const char* format, va_list args)
{
    char line[512];
    std::vsnprintf(line, sizeof line, format, args);
    Log(13, "CalDAV server: %@", printable(QString::fromUtf8(line).trimmed()));
}

// 1 000 connections need more descriptors than the usual soft limit of 1 024 leaves.
void raiseDescriptorLimit(unsigned wanted)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < wanted + 64) {
        limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, wanted + 64);
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

} // namespace

HttpServer::HttpServer(Handler handler, QObject* parent)
    : QObject(parent)
    , m_handler(std::move(handler))
{
    m_timer.setSingleShot(true);
    connect(&m_timer, &QTimer::timeout, this, &HttpServer::poll);
}

HttpServer::~HttpServer()
{
    stop();
}

bool HttpServer::start(quint16 port, const ServerCertificate& certificate, const ServerLimits& limits,
                       QString* error)
{
    stop();
    m_limits = limits;
    raiseDescriptorLimit(limits.connections);
    m_certificatePem = certificate.certificatePem;
    m_keyPem = certificate.keyPem;
    const bool tls = certificate.isValid();
    for (bool dualStack : {true, false}) {
        unsigned flags = MHD_USE_EPOLL | MHD_USE_ERROR_LOG;
        if (dualStack)
            flags |= MHD_USE_DUAL_STACK;
        if (tls)
            flags |= MHD_USE_TLS;
        MHD_OptionItem options[] = {
            {MHD_OPTION_EXTERNAL_LOGGER, intptr_t(&logError), nullptr},
            {MHD_OPTION_CONNECTION_LIMIT, limits.connections, nullptr},
            {MHD_OPTION_PER_IP_CONNECTION_LIMIT, limits.connectionsPerAddress, nullptr},
            {MHD_OPTION_CONNECTION_TIMEOUT, limits.idleTimeoutSeconds, nullptr},
            {MHD_OPTION_CONNECTION_MEMORY_LIMIT, intptr_t(limits.connectionMemory), nullptr},
            {MHD_OPTION_NOTIFY_COMPLETED, intptr_t(&completed), nullptr},
            {MHD_OPTION_UNESCAPE_CALLBACK, intptr_t(&keepEscapes), nullptr},
            {MHD_OPTION_LISTEN_BACKLOG_SIZE, 256, nullptr},
            {tls ? MHD_OPTION_HTTPS_MEM_CERT : MHD_OPTION_END, 0, const_cast<char*>(m_certificatePem.constData())},
            {tls ? MHD_OPTION_HTTPS_MEM_KEY : MHD_OPTION_END, 0, const_cast<char*>(m_keyPem.constData())},
            {MHD_OPTION_END, 0, nullptr},
        };
        m_daemon = MHD_start_daemon(flags, port, nullptr, nullptr, &access, this, MHD_OPTION_ARRAY, options,
                                    MHD_OPTION_END);
        if (m_daemon)
            break;
    }
    if (!m_daemon) {
        if (error)
            *error = port ? QStringLiteral("port %1 is not available").arg(port)
                          : QStringLiteral("no port could be opened");
        return false;
    }
    const MHD_DaemonInfo* info = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_BIND_PORT);
    m_port = info ? info->port : port;
    const MHD_DaemonInfo* epoll = MHD_get_daemon_info(m_daemon, MHD_DAEMON_INFO_EPOLL_FD);
    m_notifier = std::make_unique<QSocketNotifier>(epoll->epoll_fd, QSocketNotifier::Read);
    connect(m_notifier.get(), &QSocketNotifier::activated, this, &HttpServer::poll);
    reschedule();
    return true;
}

void HttpServer::stop()
{
    m_timer.stop();
    m_notifier.reset();
    if (m_daemon) {
        MHD_stop_daemon(m_daemon);
        m_daemon = nullptr;
    }
    m_port = 0;
}

void HttpServer::poll()
{
    if (!m_daemon)
        return;
    // One pass sends at most one TLS record per connection; while libmicrohttpd has more to do at
    // once, go on here instead of through the event loop, but give other events a turn after a while.
    for (int round = 0; round < kRoundsPerPass; ++round) {
        MHD_run(m_daemon);
        MHD_UNSIGNED_LONG_LONG ms = 0;
        if (MHD_get_timeout(m_daemon, &ms) != MHD_YES || ms != 0)
            break;
    }
    reschedule();
}

void HttpServer::reschedule()
{
    MHD_UNSIGNED_LONG_LONG ms = 0;
    if (MHD_get_timeout(m_daemon, &ms) == MHD_YES)
        m_timer.start(int(std::min<MHD_UNSIGNED_LONG_LONG>(ms, 60 * 60 * 1000)));
    else
        m_timer.stop();
}

} // namespace nimbrel::publish

#include "CaldavPublisher.h"

#include "DnssdClient.h"
#include "ServiceAnnouncer.h"
#include "logging/Log.h"

namespace nimbrel::publish {

CaldavPublisher::CaldavPublisher(PublishedStore& store, QObject* parent)
    : QObject(parent)
    , m_handler(store, m_guard)
    , m_server([this](const HttpRequest& request) { return m_handler.handle(request); })
    , m_dnssd(std::make_unique<dnssd::DnssdClient>())
    , m_announcer(std::make_unique<ServiceAnnouncer>(*m_dnssd))
{
    connect(m_announcer.get(), &ServiceAnnouncer::registered, this, &CaldavPublisher::namePublished);
    connect(m_announcer.get(), &ServiceAnnouncer::failed, this, &CaldavPublisher::nameFailed);
}

CaldavPublisher::~CaldavPublisher()
{
    stop();
}

bool CaldavPublisher::start(const PublisherConfig& config, QString* error)
{
    stop();
    if (config.tls) {
        m_certificate = ServerCertificate::loadOrCreate(config.dataFolder, config.hostName, error);
        if (!m_certificate.isValid())
            return false;
    } else {
        m_certificate = {};
    }
    bool listening = false;
    if (config.fixedPort) {
        listening = m_server.start(config.fixedPort, m_certificate, config.limits, error);
    } else {
        listening = (config.lastPort && m_server.start(config.lastPort, m_certificate, config.limits, nullptr))
            || m_server.start(0, m_certificate, config.limits, error);
    }
    if (!listening)
        return false;
    Log(10, "CalDAV: serving published calendars on port %d, certificate fingerprint (SHA-256) %@", int(port()),
        m_certificate.fingerprint.isEmpty() ? QStringLiteral("none (no TLS)") : m_certificate.fingerprint);
    return true;
}

void CaldavPublisher::stop()
{
    withdraw();
    m_server.stop();
}

void CaldavPublisher::announce(const QString& name, const QString& instanceId)
{
    m_handler.setHomeName(name);
    m_dnssd->start();
    m_announcer->announce({name, port(), instanceId, m_certificate.fingerprint, kProtocolVersion});
}

void CaldavPublisher::withdraw()
{
    m_announcer->withdraw();
    m_dnssd->stop();
}

QString CaldavPublisher::publishedName() const
{
    return m_announcer->publishedName();
}

} // namespace nimbrel::publish

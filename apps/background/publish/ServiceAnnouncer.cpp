#include "ServiceAnnouncer.h"

#include "DnssdClient.h"
#include "RequestHandler.h"
#include "logging/Log.h"

#include <avahi-client/publish.h>
#include <avahi-common/alternative.h>
#include <avahi-common/error.h>
#include <avahi-common/malloc.h>

namespace nimbrel::publish {

ServiceAnnouncer::ServiceAnnouncer(dnssd::DnssdClient& client, QObject* parent)
    : QObject(parent)
    , m_client(client)
{
    connect(&m_client, &dnssd::DnssdClient::ready, this, [this] {
        if (m_wanted)
            registerService();
    });
    connect(&m_client, &dnssd::DnssdClient::lost, this, [this](const QString& reason) {
        // The client freed its groups with itself.
        m_group = nullptr;
        if (m_wanted && !m_published.isEmpty()) {
            m_published.clear();
            Log(13, "Bonjour: the announcement is gone (%@); it comes back with avahi-daemon", reason);
        }
    });
    connect(&m_client, &dnssd::DnssdClient::stateChanged, this, [this](dnssd::DnssdClient::State state) {
        if (m_wanted && state == dnssd::DnssdClient::State::Unavailable && m_client.reason() != QString())
            Log(10, "Bonjour: not announced, Avahi is not available (%@)", m_client.reason());
    });
}

ServiceAnnouncer::~ServiceAnnouncer()
{
    freeGroup();
}

void ServiceAnnouncer::announce(const ServiceDescription& service)
{
    const bool nameChanged = service.name != m_service.name;
    m_service = service;
    m_wanted = true;
    if (nameChanged || m_currentName.isEmpty())
        m_currentName = service.name;
    if (m_client.client()) {
        registerService();
    } else {
        Log(10, "Bonjour: %@ is not announced yet: %@", printable(service.name),
            m_client.reason().isEmpty() ? QStringLiteral("waiting for avahi-daemon") : m_client.reason());
        emit failed(m_client.reason().isEmpty() ? QStringLiteral("avahi-daemon is not running") : m_client.reason());
    }
}

void ServiceAnnouncer::withdraw()
{
    m_wanted = false;
    freeGroup();
    m_published.clear();
}

void ServiceAnnouncer::freeGroup()
{
    if (m_group) {
        AvahiEntryGroup* group = m_group;
        m_group = nullptr;
        avahi_entry_group_free(group); // withdraws the records: the goodbye
    }
}

void ServiceAnnouncer::fail(const QString& reason)
{
    Log(13, "Bonjour: cannot announce %@: %@", printable(m_currentName), reason);
    m_published.clear();
    emit failed(reason);
}

void ServiceAnnouncer::registerService()
{
    AvahiClient* client = m_client.client();
    if (!client)
        return;
    if (!m_group) {
        m_group = avahi_entry_group_new(
            client, [](AvahiEntryGroup* g, AvahiEntryGroupState s, void* self) { groupCallback(g, int(s), self); },
            this);
        if (!m_group)
            return fail(QString::fromUtf8(avahi_strerror(avahi_client_errno(client))));
    } else {
        avahi_entry_group_reset(m_group);
    }
    m_published.clear();
    const QByteArray name = m_currentName.toUtf8();
    const QByteArray id = "id=" + m_service.instanceId.toUtf8();
    const QByteArray fp = "fp=" + m_service.fingerprint.toUtf8();
    const QByteArray proto = "proto=" + QByteArray::number(m_service.protocolVersion);
    int error = avahi_entry_group_add_service(m_group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC, AvahiPublishFlags(0),
                                              name.constData(), kServiceType, nullptr, nullptr, m_service.port,
                                              "path=/", "txtvers=1", id.constData(), fp.constData(),
                                              proto.constData(), static_cast<const char*>(nullptr));
    if (error == AVAHI_ERR_COLLISION) {
        // Taken locally (another program on this computer): take the alternative at once.
        char* alternative = avahi_alternative_service_name(name.constData());
        m_currentName = QString::fromUtf8(alternative);
        avahi_free(alternative);
        return registerService();
    }
    if (error >= 0)
        error = avahi_entry_group_add_service_subtype(m_group, AVAHI_IF_UNSPEC, AVAHI_PROTO_UNSPEC,
                                                      AvahiPublishFlags(0), name.constData(), kServiceType, nullptr,
                                                      kSubtype);
    if (error >= 0)
        error = avahi_entry_group_commit(m_group);
    if (error < 0)
        fail(QString::fromUtf8(avahi_strerror(error)));
}

void ServiceAnnouncer::groupCallback(AvahiEntryGroup* group, int state, void* userdata)
{
    static_cast<ServiceAnnouncer*>(userdata)->onGroupState(group, state);
}

void ServiceAnnouncer::onGroupState(AvahiEntryGroup* group, int state)
{
    if (m_group && group != m_group)
        return;
    switch (state) {
    case AVAHI_ENTRY_GROUP_ESTABLISHED:
        m_published = m_currentName;
        Log(10, "Bonjour: announced as \"%@\" on port %d", printable(m_published), int(m_service.port));
        emit registered(m_published);
        break;
    case AVAHI_ENTRY_GROUP_COLLISION: {
        // Another computer has the name: take Avahi's alternative and register again (with the subtype).
        char* alternative = avahi_alternative_service_name(m_currentName.toUtf8().constData());
        const QString previous = m_currentName;
        m_currentName = QString::fromUtf8(alternative);
        avahi_free(alternative);
        Log(10, "Bonjour: \"%@\" is taken on the network, trying \"%@\"", printable(previous),
            printable(m_currentName));
        // Not from inside the group's callback.
        QMetaObject::invokeMethod(this, [this] { if (m_wanted) registerService(); }, Qt::QueuedConnection);
        break;
    }
    case AVAHI_ENTRY_GROUP_FAILURE:
        fail(QString::fromUtf8(avahi_strerror(avahi_client_errno(avahi_entry_group_get_client(group)))));
        break;
    default:
        break;
    }
}

} // namespace nimbrel::publish

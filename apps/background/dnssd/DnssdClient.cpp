#include "DnssdClient.h"

#include "AvahiQtPoll.h"

#include <avahi-client/client.h>
#include <avahi-common/error.h>

#include <algorithm>

namespace nimbrel::dnssd {

DnssdClient::DnssdClient(QObject* parent)
    : QObject(parent)
{
    m_retry.setSingleShot(true);
    connect(&m_retry, &QTimer::timeout, this, &DnssdClient::create);
}

DnssdClient::~DnssdClient()
{
    m_retry.stop();
    destroy();
}

void DnssdClient::start()
{
    if (m_client || m_retry.isActive())
        return;
    m_retryMs = kFirstRetryMs;
    create();
}

void DnssdClient::stop()
{
    m_retry.stop();
    destroy();
    setState(State::Stopped);
}

void DnssdClient::create()
{
    destroy();
    int error = 0;
    // NO_FAIL: without a daemon the client waits in "connecting" and comes up when the daemon does.
    m_client = avahi_client_new(qtAvahiPoll(), AVAHI_CLIENT_NO_FAIL, [](AvahiClient* c, AvahiClientState s, void* self) { callback(c, int(s), self); },
                                this, &error);
    if (!m_client) {
        // No system bus at all: nothing to wait on, so try again later.
        setState(State::Unavailable, QString::fromUtf8(avahi_strerror(error)));
        m_retry.start(m_retryMs);
        m_retryMs = std::min(m_retryMs * 2, kMaxRetryMs);
        return;
    }
    onClientState(m_client, avahi_client_get_state(m_client));
}

void DnssdClient::destroy()
{
    if (m_client) {
        AvahiClient* client = m_client;
        m_client = nullptr;
        avahi_client_free(client);
    }
}

void DnssdClient::callback(AvahiClient* client, int state, void* userdata)
{
    static_cast<DnssdClient*>(userdata)->onClientState(client, state);
}

void DnssdClient::onClientState(AvahiClient* client, int state)
{
    // The callback also runs from inside avahi_client_new, before m_client is set.
    if (m_client && client != m_client)
        return;
    switch (state) {
    case AVAHI_CLIENT_S_RUNNING:
        m_retryMs = kFirstRetryMs;
        if (m_state != State::Running) {
            m_client = client;
            setState(State::Running);
            emit ready();
        }
        break;
    case AVAHI_CLIENT_S_REGISTERING:
    case AVAHI_CLIENT_S_COLLISION:
        // The host name is being (re)negotiated: registrations are void until the client runs again.
        if (m_state == State::Running) {
            setState(State::Connecting, QStringLiteral("host name being registered"));
            emit lost(m_reason);
        }
        break;
    case AVAHI_CLIENT_CONNECTING:
        setState(State::Connecting, QStringLiteral("avahi-daemon is not running"));
        break;
    case AVAHI_CLIENT_FAILURE: {
        const QString reason = QString::fromUtf8(avahi_strerror(avahi_client_errno(client)));
        const bool wasRunning = m_state == State::Running;
        setState(State::Unavailable, reason);
        if (wasRunning)
            emit lost(reason);
        // Usually the daemon went away: a new client waits for it to return. Not from inside the
        // callback, which runs within the old client.
        m_retry.start(wasRunning ? 0 : m_retryMs);
        if (!wasRunning)
            m_retryMs = std::min(m_retryMs * 2, kMaxRetryMs);
        break;
    }
    default:
        break;
    }
}

void DnssdClient::setState(State state, const QString& reason)
{
    m_reason = reason;
    if (state == m_state)
        return;
    m_state = state;
    emit stateChanged(state);
}

} // namespace nimbrel::dnssd

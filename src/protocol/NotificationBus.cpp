#include "protocol/NotificationBus.h"

#include "logging/Log.h"

#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusVariant>

namespace nimbrel {

NotificationBus::NotificationBus(const QDBusConnection& connection, QObject* parent)
    : QObject(parent), m_connection(connection)
{
    // Qt 6.4 silently refuses signal connections until QDBusVariant is known to the meta-type system.
    qRegisterMetaType<QDBusVariant>();
}

NotificationBus::~NotificationBus()
{
    removeAllObservers();
}

bool NotificationBus::addObserver(const QString& name, std::function<void()> handler)
{
    if (!m_handlers.contains(name)) {
        const bool connected =
            m_connection.connect(QString(), kNotificationsPath, kNotificationsInterface, kNotificationsSignal,
                                 QStringList{name}, QStringLiteral("s"), this, SLOT(posted(QString)));
        if (!connected) {
            Log(13, "addObserver: the bus refused the match for %@: %@", name,
                m_connection.lastError().message());
            return false;
        }
        m_order.append(name);
    }
    m_handlers.insert(name, std::move(handler));
    return true;
}

void NotificationBus::removeAllObservers()
{
    for (const QString& name : std::as_const(m_order)) {
        m_connection.disconnect(QString(), kNotificationsPath, kNotificationsInterface, kNotificationsSignal,
                                QStringList{name}, QStringLiteral("s"), this, SLOT(posted(QString)));
    }
    m_order.clear();
    m_handlers.clear();
}

bool NotificationBus::post(const QString& name, const QDBusConnection& connection)
{
    QDBusMessage signal =
        QDBusMessage::createSignal(kNotificationsPath, kNotificationsInterface, kNotificationsSignal);
    signal << name;
    return connection.send(signal);
}

void NotificationBus::posted(const QString& name)
{
    // A copy: the handler may remove every observer, this one included.
    const std::function<void()> handler = m_handlers.value(name);
    if (handler)
        handler();
}

} // namespace nimbrel

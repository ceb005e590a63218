#pragma once

// Posting and observing the background application's notifications (Notifications.h). Observers
// subscribe per name (arg0 match), from any sender.

#include "protocol/Notifications.h"

#include <QDBusConnection>
#include <QHash>
#include <QObject>
#include <QString>
#include <QStringList>
#include <functional>

namespace nimbrel {

class NotificationBus : public QObject
{
    Q_OBJECT
public:
    explicit NotificationBus(const QDBusConnection& connection = QDBusConnection::sessionBus(),
                             QObject* parent = nullptr);
    ~NotificationBus() override;

    // Observes `name`; the handler runs on the event loop each time it is posted. False when the bus
    // refused the match. Names are observed in the order they are added.
    bool addObserver(const QString& name, std::function<void()> handler);
    // Stops observing every name at once.
    void removeAllObservers();
    QStringList observedNames() const { return m_order; }

    // Posts a notification (what the background application does).
    static bool post(const QString& name, const QDBusConnection& connection = QDBusConnection::sessionBus());

private slots:
    void posted(const QString& name);

private:
    QDBusConnection m_connection;
    QStringList m_order;
    QHash<QString, std::function<void()>> m_handlers;
};

} // namespace nimbrel

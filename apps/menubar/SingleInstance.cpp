#include "SingleInstance.h"

#include <QDBusConnectionInterface>
#include <QDBusReply>

namespace nimbrel {

bool claimBusName(const QDBusConnection& connection, const QString& name, QString* error)
{
    const auto fail = [error](const QString& why) {
        if (error)
            *error = why;
        return false;
    };
    if (!connection.isConnected()) {
        return fail(QStringLiteral("cannot reach the session bus: %1").arg(connection.lastError().message()));
    }
    QDBusConnectionInterface* bus = connection.interface();
    if (!bus)
        return fail(QStringLiteral("the session bus offers no name service"));

    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply = bus->registerService(
        name, QDBusConnectionInterface::DontQueueService, QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid())
        return fail(QStringLiteral("cannot claim %1: %2").arg(name, reply.error().message()));
    if (reply.value() != QDBusConnectionInterface::ServiceRegistered)
        return fail(QStringLiteral("another instance already runs in this session (%1 is taken)").arg(name));
    return true;
}

} // namespace nimbrel

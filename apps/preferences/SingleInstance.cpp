#include "SingleInstance.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusReply>

namespace nimbrel {

PreferencesService::PreferencesService(const QDBusConnection& connection, std::function<void()> activate)
    : m_connection(connection), m_activate(std::move(activate))
{
}

void PreferencesService::Activate()
{
    if (m_activate)
        m_activate();
}

std::optional<PreferencesService::Claim> PreferencesService::claim(QString* error)
{
    const auto fail = [error](const QString& why) -> std::optional<Claim> {
        if (error)
            *error = why;
        return std::nullopt;
    };
    if (!m_connection.isConnected() || !m_connection.interface())
        return fail(QStringLiteral("no session bus: %1").arg(m_connection.lastError().message()));

    // The object first, so an Activate that arrives right after the name is taken finds it.
    m_connection.registerObject(kPreferencesObjectPath, this, QDBusConnection::ExportScriptableSlots);
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        m_connection.interface()->registerService(kPreferencesServiceName,
                                                  QDBusConnectionInterface::DontQueueService,
                                                  QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid())
        return fail(reply.error().message());
    if (reply.value() == QDBusConnectionInterface::ServiceRegistered)
        return Claim::Owner;

    m_connection.unregisterObject(kPreferencesObjectPath);
    QDBusMessage activate = QDBusMessage::createMethodCall(
        kPreferencesServiceName, kPreferencesObjectPath, kPreferencesServiceName, QStringLiteral("Activate"));
    activate.setAutoStartService(false);
    const QDBusMessage answer = m_connection.call(activate, QDBus::Block, 5000);
    if (answer.type() == QDBusMessage::ErrorMessage)
        return fail(QStringLiteral("another instance owns %1 but does not answer: %2")
                        .arg(kPreferencesServiceName, answer.errorMessage()));
    return Claim::OtherActivated;
}

} // namespace nimbrel

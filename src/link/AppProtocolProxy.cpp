#include "link/AppProtocolProxy.h"

#include "link/WireCodec.h"

#include <QDBusMessage>
#include <QLoggingCategory>

namespace nimbrel {

namespace {

Q_LOGGING_CATEGORY(lcProxy, "nimbrel.link.proxy")

// The call as a message: no introspection, and a stopped background application stays stopped.
// False (with `error` set) when an argument cannot be carried.
bool buildCall(const QString& method, const QVariantList& arguments, QDBusMessage* message, QDBusError* error)
{
    *message =
        QDBusMessage::createMethodCall(kAppProtocolService, kAppProtocolPath, kAppProtocolInterface, method);
    message->setAutoStartService(false);
    QVariantList wireArguments;
    wireArguments.reserve(arguments.size());
    for (const QVariant& argument : arguments) {
        QVariant wire = wire::toWire(argument);
        if (!wire.isValid()) {
            *error = QDBusError(QDBusError::InvalidArgs,
                                QStringLiteral("argument %1 cannot be sent").arg(wireArguments.size()));
            return false;
        }
        wireArguments.append(std::move(wire));
    }
    message->setArguments(wireArguments);
    return true;
}

} // namespace

AppProtocolProxy::AppProtocolProxy(const QDBusConnection& connection) : m_connection(connection) {}

bool AppProtocolProxy::send(const QString& method, const QVariantList& arguments) const
{
    QDBusMessage message;
    QDBusError error;
    // QDBusConnection::send marks a method call as expecting no reply.
    if (!buildCall(method, arguments, &message, &error) || !m_connection.send(message)) {
        if (!error.isValid())
            error = m_connection.lastError();
        qCWarning(lcProxy).noquote() << method + QStringLiteral(": not sent:") << error.name()
                                     << error.message();
        return false;
    }
    return true;
}

std::optional<QVariant> AppProtocolProxy::call(const QString& method, const QVariantList& arguments,
                                               QDBusError* error) const
{
    QDBusMessage message;
    QDBusError failure;
    if (buildCall(method, arguments, &message, &failure)) {
        const QDBusMessage reply = m_connection.call(message, QDBus::Block, m_timeout);
        if (reply.type() == QDBusMessage::ReplyMessage) {
            if (error)
                *error = QDBusError();
            const QVariantList replyArguments = reply.arguments();
            return replyArguments.isEmpty() ? QVariant() : wire::fromWire(replyArguments.constFirst());
        }
        failure = QDBusError(reply);
        if (!failure.isValid())
            failure = QDBusError(QDBusError::InternalError, QStringLiteral("no reply"));
    }
    qCWarning(lcProxy).noquote() << method + QStringLiteral(": failed:") << failure.name()
                                 << failure.message();
    if (error)
        *error = failure;
    return std::nullopt;
}

std::optional<qint32> AppProtocolProxy::version(QDBusError* error) const
{
    const std::optional<QVariant> answer = call(QStringLiteral("version"), {}, error);
    if (!answer)
        return std::nullopt;
    if (answer->typeId() != QMetaType::Int) {
        const QDBusError wrongType(
            QDBusError::InvalidSignature,
            QStringLiteral("version answered a %1").arg(QLatin1String(answer->typeName())));
        qCWarning(lcProxy).noquote() << QStringLiteral("version: failed:") << wrongType.message();
        if (error)
            *error = wrongType;
        return std::nullopt;
    }
    return answer->toInt();
}

std::optional<QVariantList> AppProtocolProxy::listCall(const QString& method) const
{
    const std::optional<QVariant> answer = call(method);
    if (!answer)
        return std::nullopt;
    if (answer->typeId() != QMetaType::QVariantList) {
        qCWarning(lcProxy).noquote() << method + QStringLiteral(": answered a") << answer->typeName()
                                     << QStringLiteral("instead of a list");
        return std::nullopt;
    }
    return answer->toList();
}

std::optional<QVariantList> AppProtocolProxy::calendarsPublishableViaBonjour() const
{
    return listCall(QStringLiteral("calendarsPublishableViaBonjour"));
}

std::optional<QVariantList> AppProtocolProxy::sourceListOfBonjourCalendars() const
{
    return listCall(QStringLiteral("sourceListOfBonjourCalendars"));
}

std::optional<QVariantList> AppProtocolProxy::calendarsPublishableToGoogle() const
{
    return listCall(QStringLiteral("calendarsPublishableToGoogle"));
}

std::optional<QVariantList> AppProtocolProxy::sourceListOfGoogleCalendars() const
{
    return listCall(QStringLiteral("sourceListOfGoogleCalendars"));
}

QVariantMap AppProtocolProxy::bonjourPublisherInfo(bool* ok) const
{
    const std::optional<QVariant> answer = call(QStringLiteral("bonjourPublisherInfo"));
    const bool isMap = answer && answer->typeId() == QMetaType::QVariantMap;
    if (answer && !isMap) {
        qCWarning(lcProxy).noquote() << QStringLiteral("bonjourPublisherInfo: answered a")
                                     << answer->typeName() << QStringLiteral("instead of a dictionary");
    }
    if (ok)
        *ok = isMap;
    return isMap ? answer->toMap() : QVariantMap();
}

bool AppProtocolProxy::googleSyncInProgress() const
{
    const std::optional<QVariant> answer = call(QStringLiteral("googleSyncInProgress"));
    if (!answer)
        return false;
    if (answer->typeId() != QMetaType::Bool) {
        qCWarning(lcProxy).noquote() << QStringLiteral("googleSyncInProgress: answered a")
                                     << answer->typeName() << QStringLiteral("instead of a boolean");
        return false;
    }
    return answer->toBool();
}

void AppProtocolProxy::techSupportInfo() const
{
    call(QStringLiteral("techSupportInfo"));
}

void AppProtocolProxy::publishCalendarViaBonjour(const QVariantMap& calendar) const
{
    send(QStringLiteral("publishCalendarViaBonjour"), {calendar});
}

void AppProtocolProxy::publishCalendarToGoogle(const QVariantMap& calendar) const
{
    send(QStringLiteral("publishCalendarToGoogle"), {calendar});
}

void AppProtocolProxy::subscribeTo(const QVariantMap& calendar) const
{
    send(QStringLiteral("subscribeTo"), {calendar});
}

void AppProtocolProxy::publishOptions(const QVariantMap& calendar) const
{
    send(QStringLiteral("publishOptions"), {calendar});
}

void AppProtocolProxy::subscribeOptions(const QVariantMap& calendar) const
{
    send(QStringLiteral("subscribeOptions"), {calendar});
}

void AppProtocolProxy::bonjourIPServiceOptions(const QVariantMap& server) const
{
    send(QStringLiteral("bonjourIPServiceOptions"), {server});
}

void AppProtocolProxy::disconnectBonjourIPService(const QVariantMap& server) const
{
    send(QStringLiteral("disconnectBonjourIPService"), {server});
}

void AppProtocolProxy::googleServiceOptions(const QVariantMap& settings) const
{
    send(QStringLiteral("googleServiceOptions"), {settings});
}

void AppProtocolProxy::disconnectGoogleService(const QVariantMap& settings) const
{
    send(QStringLiteral("disconnectGoogleService"), {settings});
}

void AppProtocolProxy::setBonjourPublisherInfo(const QVariantMap& info) const
{
    send(QStringLiteral("setBonjourPublisherInfo"), {info});
}

void AppProtocolProxy::log(const QString& text) const
{
    send(QStringLiteral("log"), {text});
}

void AppProtocolProxy::checkForUpdate() const
{
    send(QStringLiteral("checkForUpdate"));
}

void AppProtocolProxy::autoCheckForUpdatesChanged() const
{
    send(QStringLiteral("autoCheckForUpdatesChanged"));
}

void AppProtocolProxy::syncHistoryWillBeReset() const
{
    send(QStringLiteral("syncHistoryWillBeReset"));
}

void AppProtocolProxy::syncHistoryWasReset() const
{
    send(QStringLiteral("syncHistoryWasReset"));
}

void AppProtocolProxy::resetDatabase() const
{
    send(QStringLiteral("resetDatabase"));
}

void AppProtocolProxy::shutdown() const
{
    send(QStringLiteral("shutdown"));
}

} // namespace nimbrel

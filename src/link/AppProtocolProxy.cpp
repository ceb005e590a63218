#include "link/AppProtocolProxy.h"

#include "logging/Log.h"
#include "protocol/WireCodec.h"

#include <QDBusMessage>

namespace nimbrel {

namespace {

std::function<void(const QString&)>& outgoingObserver()
{
    static std::function<void(const QString&)> observer;
    return observer;
}

// The call as a message: no introspection, and a stopped background application stays stopped.
// False (with `error` set) when an argument cannot be carried.
bool buildCall(const QString& method, const QVariantList& arguments, QDBusMessage* message, QDBusError* error)
{
    if (outgoingObserver())
        outgoingObserver()(method);
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

void AppProtocolProxy::setOutgoingObserver(std::function<void(const QString& method)> observer)
{
    outgoingObserver() = std::move(observer);
}

bool AppProtocolProxy::send(const QString& method, const QVariantList& arguments) const
{
    QDBusMessage message;
    QDBusError error;
    // QDBusConnection::send marks a method call as expecting no reply.
    if (!buildCall(method, arguments, &message, &error) || !m_connection.send(message)) {
        if (!error.isValid())
            error = m_connection.lastError();
        Log(13, "%@: not sent: %@ %@", method, error.name(), error.message());
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
    Log(13, "%@: failed: %@ %@", method, failure.name(), failure.message());
    if (error)
        *error = failure;
    return std::nullopt;
}

std::optional<qint32> AppProtocolProxy::version(QDBusError* error) const
{
    const std::optional<QVariant> answer = call(method::version, {}, error);
    if (!answer)
        return std::nullopt;
    if (answer->typeId() != QMetaType::Int) {
        const QDBusError wrongType(
            QDBusError::InvalidSignature,
            QStringLiteral("version answered a %1").arg(QLatin1String(answer->typeName())));
        Log(13, "version: failed: %@", wrongType.message());
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
    if (answer->typeId() != QMetaType::QByteArray) {
        Log(13, "%@: answered a %s instead of a list", method, answer->typeName());
        return std::nullopt;
    }
    QString error;
    std::optional<QVariantList> list = wire::decodeList(answer->toByteArray(), &error);
    if (!list)
        Log(13, "%@: answered no list: %@", method, error);
    return list;
}

std::optional<QVariantList> AppProtocolProxy::calendarsPublishableViaBonjour() const
{
    return listCall(method::calendarsPublishableViaBonjour);
}

std::optional<QVariantList> AppProtocolProxy::sourceListOfBonjourCalendars() const
{
    return listCall(method::sourceListOfBonjourCalendars);
}

std::optional<QVariantList> AppProtocolProxy::calendarsPublishableToGoogle() const
{
    return listCall(method::calendarsPublishableToGoogle);
}

std::optional<QVariantList> AppProtocolProxy::sourceListOfGoogleCalendars() const
{
    return listCall(method::sourceListOfGoogleCalendars);
}

QVariantMap AppProtocolProxy::bonjourPublisherInfo(bool* ok) const
{
    const std::optional<QVariant> answer = call(method::bonjourPublisherInfo);
    const bool isMap = answer && answer->typeId() == QMetaType::QVariantMap;
    if (answer && !isMap) {
        Log(13, "bonjourPublisherInfo: answered a %s instead of a dictionary", answer->typeName());
    }
    if (ok)
        *ok = isMap;
    return isMap ? answer->toMap() : QVariantMap();
}

bool AppProtocolProxy::googleSyncInProgress() const
{
    const std::optional<QVariant> answer = call(method::googleSyncInProgress);
    if (!answer)
        return false;
    if (answer->typeId() != QMetaType::Bool) {
        Log(13, "googleSyncInProgress: answered a %s instead of a boolean", answer->typeName());
        return false;
    }
    return answer->toBool();
}

void AppProtocolProxy::techSupportInfo() const
{
    call(method::techSupportInfo);
}

void AppProtocolProxy::publishCalendarViaBonjour(const QVariantMap& calendar) const
{
    send(method::publishCalendarViaBonjour, {calendar});
}

void AppProtocolProxy::publishCalendarToGoogle(const QVariantMap& calendar) const
{
    send(method::publishCalendarToGoogle, {calendar});
}

void AppProtocolProxy::subscribeTo(const QVariantMap& calendar) const
{
    send(method::subscribeTo, {calendar});
}

void AppProtocolProxy::publishOptions(const QVariantMap& calendar) const
{
    send(method::publishOptions, {calendar});
}

void AppProtocolProxy::subscribeOptions(const QVariantMap& calendar) const
{
    send(method::subscribeOptions, {calendar});
}

void AppProtocolProxy::bonjourIPServiceOptions(const QVariantMap& server) const
{
    send(method::bonjourIPServiceOptions, {server});
}

void AppProtocolProxy::disconnectBonjourIPService(const QVariantMap& server) const
{
    send(method::disconnectBonjourIPService, {server});
}

void AppProtocolProxy::googleServiceOptions(const QVariantMap& settings) const
{
    send(method::googleServiceOptions, {settings});
}

void AppProtocolProxy::disconnectGoogleService(const QVariantMap& settings) const
{
    send(method::disconnectGoogleService, {settings});
}

void AppProtocolProxy::setBonjourPublisherInfo(const QVariantMap& info) const
{
    send(method::setBonjourPublisherInfo, {info});
}

void AppProtocolProxy::log(const QString& text) const
{
    send(method::log, {text});
}

void AppProtocolProxy::checkForUpdate() const
{
    send(method::checkForUpdate);
}

void AppProtocolProxy::autoCheckForUpdatesChanged() const
{
    send(method::autoCheckForUpdatesChanged);
}

void AppProtocolProxy::syncHistoryWillBeReset() const
{
    send(method::syncHistoryWillBeReset);
}

void AppProtocolProxy::syncHistoryWasReset() const
{
    send(method::syncHistoryWasReset);
}

void AppProtocolProxy::resetDatabase() const
{
    send(method::resetDatabase);
}

void AppProtocolProxy::shutdown() const
{
    send(method::shutdown);
}

} // namespace nimbrel

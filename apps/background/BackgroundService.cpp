#include "BackgroundService.h"

#include "AppProtocolAdaptor.h"
#include "NimbrelState.h"
#include "logging/Log.h"
#include "platform/SettingsStore.h"
#include "protocol/AppProtocol.h"
#include "protocol/WireCodec.h"

#include <QDBusConnectionInterface>
#include <QDBusReply>
#include <QDateTime>
#include <QSysInfo>

namespace nimbrel::background {

namespace {

// Incoming dictionaries still hold nested QDBusArguments: unwrap them into property lists.
QVariantMap plist(const QVariantMap& incoming)
{
    return wire::fromWire(QVariant(incoming)).toMap();
}

QByteArray wireList(const QVariantList& list)
{
    return wire::encodeList(list);
}

bool isSecretKey(const QString& key)
{
    return key.contains(QLatin1String("Password"), Qt::CaseInsensitive);
}

// One line's worth of a property-list value; nested dictionaries leave out their secret keys too.
QString describe(const QVariant& value)
{
    switch (value.typeId()) {
    case QMetaType::QDateTime:
        return value.toDateTime().toUTC().toString(Qt::ISODate);
    case QMetaType::QByteArray:
        return QStringLiteral("<%1 bytes>").arg(value.toByteArray().size());
    case QMetaType::Bool:
        return value.toBool() ? QStringLiteral("true") : QStringLiteral("false");
    case QMetaType::QVariantList: {
        QStringList parts;
        for (const QVariant& element : value.toList())
            parts.append(describe(element));
        return QLatin1Char('(') + parts.join(QLatin1String(", ")) + QLatin1Char(')');
    }
    case QMetaType::QVariantMap: {
        QStringList parts;
        const QVariantMap map = value.toMap();
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            if (!isSecretKey(it.key()))
                parts.append(it.key() + QLatin1String(" = ") + describe(it.value()));
        }
        return QLatin1Char('{') + parts.join(QLatin1String("; ")) + QLatin1Char('}');
    }
    default:
        return value.toString();
    }
}

} // namespace

QStringList techSupportLines(const QString& appVersion, const SettingsStore& shared,
                             const NimbrelState& state)
{
    QStringList lines;
    lines << QStringLiteral("Nimbrel %1").arg(appVersion)
          << QStringLiteral("Qt %1 (built with %2)")
                 .arg(QString::fromLatin1(qVersion()), QStringLiteral(QT_VERSION_STR))
          << QStringLiteral("System: %1; %2 %3; %4")
                 .arg(QSysInfo::prettyProductName(), QSysInfo::kernelType(), QSysInfo::kernelVersion(),
                      QSysInfo::currentCpuArchitecture())
          << QStringLiteral("Protocol version %1").arg(kAppProtocolVersion)
          << QStringLiteral("Shared settings (%1):").arg(shared.path());
    QStringList keys = shared.keys();
    keys.sort();
    for (const QString& key : std::as_const(keys)) {
        if (!isSecretKey(key))
            lines << QStringLiteral("    %1 = %2").arg(key, describe(shared.value(key)));
    }
    lines << QStringLiteral("State:");
    for (const QString& line : state.diagnostics())
        lines << QStringLiteral("    ") + line;
    return lines;
}

BackgroundService::BackgroundService(NimbrelState& state, SettingsStore& shared, const QString& appVersion,
                                     QObject* parent)
    : QObject(parent), m_state(state), m_shared(shared), m_appVersion(appVersion)
{
    new AppProtocolAdaptor(this);
}

BackgroundService::~BackgroundService()
{
    unserve();
}

BackgroundService::ServeResult BackgroundService::serve(const QDBusConnection& connection)
{
    if (isServing())
        return ServeResult::Serving;
    QDBusConnection bus = connection;
    if (!bus.isConnected() || !bus.interface())
        return ServeResult::Failed;
    if (!bus.registerObject(kAppProtocolPath, this, QDBusConnection::ExportAdaptors))
        return ServeResult::Failed;
    const QDBusReply<QDBusConnectionInterface::RegisterServiceReply> reply =
        bus.interface()->registerService(kAppProtocolService, QDBusConnectionInterface::DontQueueService,
                                         QDBusConnectionInterface::DontAllowReplacement);
    if (!reply.isValid() || reply.value() != QDBusConnectionInterface::ServiceRegistered) {
        bus.unregisterObject(kAppProtocolPath);
        return reply.isValid() ? ServeResult::NameTaken : ServeResult::Failed;
    }
    m_connection = bus;
    return ServeResult::Serving;
}

void BackgroundService::unserve()
{
    if (!m_connection)
        return;
    m_connection->unregisterService(kAppProtocolService);
    m_connection->unregisterObject(kAppProtocolPath);
    m_connection.reset();
}

// ---- Answers ------------------------------------------------------------------------------------------

int BackgroundService::version()
{
    return kAppProtocolVersion;
}

QByteArray BackgroundService::calendarsPublishableViaBonjour()
{
    return wireList(m_state.calendarsPublishableViaBonjour());
}

QByteArray BackgroundService::sourceListOfBonjourCalendars()
{
    return wireList(m_state.sourceListOfBonjourCalendars());
}

QByteArray BackgroundService::calendarsPublishableToGoogle()
{
    return wireList(m_state.calendarsPublishableToGoogle());
}

QByteArray BackgroundService::sourceListOfGoogleCalendars()
{
    return wireList(m_state.sourceListOfGoogleCalendars());
}

QVariantMap BackgroundService::bonjourPublisherInfo()
{
    return wire::toWire(m_state.bonjourPublisherInfo());
}

bool BackgroundService::googleSyncInProgress()
{
    return m_state.googleSyncInProgress();
}

void BackgroundService::techSupportInfo()
{
    // The caller gathers the log files as soon as this returns: the block must be on disk by then.
    m_shared.sync();
    Log(10, "---- Technical support information ----");
    for (const QString& line : techSupportLines(m_appVersion, m_shared, m_state))
        Log(10, "%@", line);
    Log(10, "---- End of technical support information ----");
    LogFlush();
}

// ---- Changes ------------------------------------------------------------------------------------------

void BackgroundService::publishCalendarViaBonjour(const QVariantMap& calendar)
{
    m_state.publishCalendarViaBonjour(plist(calendar));
}

void BackgroundService::publishCalendarToGoogle(const QVariantMap& calendar)
{
    m_state.publishCalendarToGoogle(plist(calendar));
}

void BackgroundService::subscribeTo(const QVariantMap& calendar)
{
    m_state.subscribeTo(plist(calendar));
}

void BackgroundService::publishOptions(const QVariantMap& calendar)
{
    m_state.publishOptions(plist(calendar));
}

void BackgroundService::subscribeOptions(const QVariantMap& calendar)
{
    m_state.subscribeOptions(plist(calendar));
}

void BackgroundService::bonjourIPServiceOptions(const QVariantMap& server)
{
    m_state.bonjourIPServiceOptions(plist(server));
}

void BackgroundService::disconnectBonjourIPService(const QVariantMap& server)
{
    m_state.disconnectBonjourIPService(plist(server));
}

void BackgroundService::googleServiceOptions(const QVariantMap& settings)
{
    m_state.googleServiceOptions(plist(settings));
}

void BackgroundService::disconnectGoogleService(const QVariantMap& settings)
{
    m_state.disconnectGoogleService(plist(settings));
}

void BackgroundService::setBonjourPublisherInfo(const QVariantMap& info)
{
    m_state.setBonjourPublisherInfo(plist(info));
}

// ---- Application requests -----------------------------------------------------------------------------

void BackgroundService::log(const QString& text)
{
    // The text is data, never a format.
    Log(5, "%@", text);
}

void BackgroundService::checkForUpdate()
{
    emit updateCheckRequested();
}

void BackgroundService::autoCheckForUpdatesChanged()
{
    emit updateScheduleChanged();
}

void BackgroundService::syncHistoryWillBeReset()
{
    Log(10, "Sync history will be reset: database paused");
    m_state.pauseForSyncHistoryReset();
}

void BackgroundService::syncHistoryWasReset()
{
    if (m_state.resumeAfterSyncHistoryReset())
        Log(10, "Sync history was reset: database resumed");
    else
        Log(13, "syncHistoryWasReset: the database could not be reopened: %@", m_state.lastError());
}

void BackgroundService::resetDatabase()
{
    Log(10, "Resetting the database");
    if (!m_state.resetDatabase())
        Log(13, "resetDatabase: the backup failed, nothing was reset: %@", m_state.lastError());
}

void BackgroundService::shutdown()
{
    QMetaObject::invokeMethod(this, &BackgroundService::shutdownRequested, Qt::QueuedConnection);
}

} // namespace nimbrel::background

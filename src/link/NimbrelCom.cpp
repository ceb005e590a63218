// NimbrelCom: construction, the shared settings, the connection to the background application's remote
// object, the cached Bonjour publisher settings and the plain forwarders.

#include "link/NimbrelCom.h"

#include "link/NimbrelComDelegate.h"
#include "protocol/NotificationBus.h"
#include "logging/Log.h"
#include "platform/PlistCodec.h"
#include "platform/RunLoop.h"
#include "platform/SettingsStore.h"

#include <QDate>
#include <QTime>

namespace nimbrel {

namespace {

const QString kWelcomedKey = QStringLiteral("welcomed");
const QString kWelcomeKey = QStringLiteral("welcome");
const QString kLastResetDateKey = QStringLiteral("lastResetDate");
const QString kCheckForUpdateIntervalKey = QStringLiteral("checkForUpdateInterval");
const QString kLastCheckTimeKey = QStringLiteral("SULastCheckTime");

// "checkForUpdateInterval" when automatic checking is on, and when it is off (also the threshold).
constexpr double kUpdateIntervalOn = 86400.0;
constexpr double kUpdateIntervalOff = 1000000000.0;

// The built-in defaults of the background application: Resources/Nimbrel.app/Resources/UserDefaults.plist.
QVariantMap loadUserDefaults(const std::optional<Bundle>& app)
{
    if (!app)
        return {};
    const QString path = app->pathForResource(QStringLiteral("UserDefaults"), QStringLiteral("plist"));
    if (path.isEmpty())
        return {};
    plist::ParseError error;
    const std::optional<QVariant> value = plist::readFile(path, &error);
    if (!value) {
        Log(13, "NimbrelCom: cannot read %@: %@", path, error.toString());
        return {};
    }
    return value->toMap();
}

} // namespace

NimbrelCom::NimbrelCom(NimbrelComDelegate* delegate, const Bundle& bundle, RunLoop* runLoop,
                       const QDBusConnection& connection)
    : m_bundle(bundle), m_delegate(delegate), m_runLoop(runLoop ? runLoop : &RunLoop::current()),
      m_connection(connection)
{
    const std::optional<Bundle> app = m_bundle.appBundleForResource(QStringLiteral("Nimbrel"));
    m_userDefaults = loadUserDefaults(app);
    m_backgroundAppIdentifier = app ? app->bundleIdentifier() : QString();
    if (m_backgroundAppIdentifier.isEmpty())
        m_backgroundAppIdentifier = kBackgroundAppIdentifier;

    m_notifications = std::make_unique<NotificationBus>(m_connection);
    m_sharedSettings = std::make_unique<SettingsStore>(SettingsStore::domainPath(m_backgroundAppIdentifier));
}

// Pending performs aimed at the link are dropped by the run loop's guard once it is gone.
NimbrelCom::~NimbrelCom() = default;

QString NimbrelCom::menuBarAppIdentifier() const
{
    return m_backgroundAppIdentifier + QStringLiteral(".menu");
}

void NimbrelCom::performAfterDelay(const char* selector, double seconds, void (NimbrelCom::*method)())
{
    m_runLoop->performAfterDelay(static_cast<QObject*>(this), QByteArray(selector), seconds,
                                 [this, method] { (this->*method)(); });
}

void NimbrelCom::cancelPerform(const char* selector)
{
    m_runLoop->cancelPreviousPerformRequests(selfTarget(), QByteArray(selector));
}

// ---- Shared settings ---------------------------------------------------------------------------

SettingsStore& NimbrelCom::sharedSettings()
{
    return *m_sharedSettings;
}

bool NimbrelCom::firstLaunch(bool* outWelcome)
{
    if (outWelcome)
        *outWelcome = false;
    SettingsStore& settings = sharedSettings();
    if (settings.boolValue(kWelcomedKey).value_or(false))
        return false;

    // "welcome" is read once, at the first launch, and then removed whatever its type.
    if (settings.value(kWelcomeKey).isValid()) {
        if (const std::optional<bool> welcome = settings.boolValue(kWelcomeKey); welcome && outWelcome)
            *outWelcome = *welcome;
        settings.remove(kWelcomeKey);
    }
    settings.setValue(kWelcomedKey, true);
    return true;
}

void NimbrelCom::touchLastResetDate()
{
    sharedSettings().setValue(kLastResetDateKey, QDateTime::currentDateTimeUtc());
}

bool NimbrelCom::autoCheckForUpdates()
{
    bool ok = false;
    double interval = m_userDefaults.value(kCheckForUpdateIntervalKey).toDouble(&ok);
    if (!ok)
        interval = 0.0;
    if (const std::optional<double> stored = sharedSettings().numberValue(kCheckForUpdateIntervalKey))
        interval = *stored;
    return kUpdateIntervalOff > interval;
}

void NimbrelCom::setAutoCheckForUpdates(bool on)
{
    // setValue syncs; the background application re-reads its schedule only when the write made it.
    const bool written =
        sharedSettings().setValue(kCheckForUpdateIntervalKey, on ? kUpdateIntervalOn : kUpdateIntervalOff);
    if (written && m_proxy)
        m_proxy->autoCheckForUpdatesChanged();
}

QDateTime NimbrelCom::lastUpdateCheckTime()
{
    if (const std::optional<QDateTime> date = sharedSettings().dateValue(kLastCheckTimeKey))
        return *date;
    return QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
}

// ---- Connection --------------------------------------------------------------------------------

void NimbrelCom::connect()
{
    m_proxy.reset();

    if (m_backgroundAppRunning) {
        m_proxy = std::make_unique<AppProtocolProxy>(m_connection);
        AppProtocolProxy* const handshakeProxy = m_proxy.get();
        const int savedTimeout = handshakeProxy->timeout();
        handshakeProxy->setTimeout(m_handshakeTimeoutMs);

        // No owner of the service name, a reply time-out or an error reply all fail the handshake.
        QDBusError error;
        const std::optional<qint32> version = handshakeProxy->version(&error);
        if (!version) {
            Log(12, "NimbrelCom: handshake failed: %@ %@", error.name(), error.message());
            backgroundAppStateChangeTimeout(); // drops the proxy and schedules the next attempt
        } else if (*version == kAppProtocolVersion) {
            if (!m_backgroundAppResponding) {
                m_backgroundAppResponding = true;
                m_delegate->nimbrelBackgroundAppStateChange(m_backgroundAppRunning, true);
            }
        } else {
            Log(12, "NimbrelCom: background application speaks protocol version %d, not %d", *version,
                kAppProtocolVersion);
            m_delegate->nimbrelProtocolVersionError();
        }

        // The failure path (or a handler run meanwhile) may have dropped the proxy.
        if (m_proxy.get() == handshakeProxy)
            handshakeProxy->setTimeout(savedTimeout);
    }

    // Fetch everything afresh from the new proxy, or empty it all when there is none.
    calendarsChanged();
    bonjourNamePublished();
}

void NimbrelCom::disconnect()
{
    m_proxy.reset();
    m_proxy_published_calendars.reset();
    m_proxy_subscribed_calendars.reset();
    m_proxy_bonjourInfo.reset();
    m_proxy_google_published_calendars.reset();
    m_proxy_google_subscribed_calendars.reset();

    calendarsChanged();
    bonjourNamePublished();
}

// ---- Bonjour publisher settings ----------------------------------------------------------------

std::optional<QVariantMap> NimbrelCom::bonjourInfo()
{
    if (!m_proxy_bonjourInfo && m_proxy) {
        bool ok = false;
        QVariantMap info = m_proxy->bonjourPublisherInfo(&ok);
        if (ok)
            m_proxy_bonjourInfo = std::move(info);
    }
    return m_proxy_bonjourInfo;
}

void NimbrelCom::setBonjourInfo(const QVariantMap& info)
{
    if (m_proxy_bonjourInfo && *m_proxy_bonjourInfo == info) {
        m_delegate->nimbrelBonjourNamePublished();
        return;
    }
    // The cache is refreshed by the confirmation, not here.
    if (m_proxy)
        m_proxy->setBonjourPublisherInfo(info);
    performAfterDelay("bonjourInfoChangeTimeout", kBonjourInfoChangeDelay,
                      &NimbrelCom::bonjourInfoChangeTimeout);
}

void NimbrelCom::bonjourInfoChangeTimeout()
{
    m_delegate->nimbrelBonjourNamePublished();
}

void NimbrelCom::bonjourNamePublished()
{
    cancelPerform("bonjourInfoChangeTimeout");

    // Fetch afresh. A cache that existed stays present: a failed fetch leaves it empty, not absent.
    const bool hadCache = m_proxy_bonjourInfo.has_value();
    m_proxy_bonjourInfo.reset();
    bonjourInfo();
    if (hadCache && !m_proxy_bonjourInfo)
        m_proxy_bonjourInfo = QVariantMap();

    m_delegate->nimbrelBonjourNamePublished();
}

// ---- Forwarders --------------------------------------------------------------------------------

void NimbrelCom::setPublishOptions(const QVariantMap& calendar)
{
    if (m_proxy)
        m_proxy->publishOptions(calendar);
}

void NimbrelCom::setSubscribeOptions(const QVariantMap& calendar)
{
    if (m_proxy)
        m_proxy->subscribeOptions(calendar);
}

void NimbrelCom::setServerOptions(const QVariantMap& server)
{
    if (m_proxy)
        m_proxy->bonjourIPServiceOptions(server);
}

void NimbrelCom::disconnectServer(const QVariantMap& server)
{
    if (m_proxy)
        m_proxy->disconnectBonjourIPService(server);
}

void NimbrelCom::setGoogleOptions(const QVariantMap& settings)
{
    if (m_proxy)
        m_proxy->googleServiceOptions(settings);
}

void NimbrelCom::disconnectGoogle(const QVariantMap& settings)
{
    if (m_proxy)
        m_proxy->disconnectGoogleService(settings);
}

} // namespace nimbrel

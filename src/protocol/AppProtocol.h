#pragma once

// The background application's remote object on the session bus: its names, the protocol version and
// every AppProtocol method with its kind. dbus/com.quorvia.Nimbrel.AppProtocol.xml is the interface
// as checked in; a test keeps the two in step.

#include <QLatin1StringView>
#include <QString>
#include <array>

namespace nimbrel {

// Bundle identifiers of the two companions (their Info.plists say so too; these are the fallbacks).
inline const QString kBackgroundAppIdentifier = QStringLiteral("com.quorvia.Nimbrel");
inline const QString kMenuBarAppIdentifier = QStringLiteral("com.quorvia.Nimbrel.menu");

inline const QString kAppProtocolService = QStringLiteral("com.quorvia.Nimbrel.Proxy");
inline const QString kAppProtocolPath = QStringLiteral("/com/quorvia/Nimbrel/Proxy");
inline const QString kAppProtocolInterface = QStringLiteral("com.quorvia.Nimbrel.AppProtocol");
inline constexpr int kAppProtocolVersion = 5;

// Method names, as the bus carries them.
namespace method {
// Synchronous: the caller waits for the reply.
inline constexpr QLatin1StringView version = QLatin1StringView("version");
inline constexpr QLatin1StringView calendarsPublishableViaBonjour =
    QLatin1StringView("calendarsPublishableViaBonjour");
inline constexpr QLatin1StringView sourceListOfBonjourCalendars =
    QLatin1StringView("sourceListOfBonjourCalendars");
inline constexpr QLatin1StringView calendarsPublishableToGoogle =
    QLatin1StringView("calendarsPublishableToGoogle");
inline constexpr QLatin1StringView sourceListOfGoogleCalendars =
    QLatin1StringView("sourceListOfGoogleCalendars");
inline constexpr QLatin1StringView bonjourPublisherInfo = QLatin1StringView("bonjourPublisherInfo");
inline constexpr QLatin1StringView googleSyncInProgress = QLatin1StringView("googleSyncInProgress");
inline constexpr QLatin1StringView techSupportInfo = QLatin1StringView("techSupportInfo");
// One-way: sent with no reply expected.
inline constexpr QLatin1StringView publishCalendarViaBonjour = QLatin1StringView("publishCalendarViaBonjour");
inline constexpr QLatin1StringView publishCalendarToGoogle = QLatin1StringView("publishCalendarToGoogle");
inline constexpr QLatin1StringView subscribeTo = QLatin1StringView("subscribeTo");
inline constexpr QLatin1StringView publishOptions = QLatin1StringView("publishOptions");
inline constexpr QLatin1StringView subscribeOptions = QLatin1StringView("subscribeOptions");
inline constexpr QLatin1StringView bonjourIPServiceOptions = QLatin1StringView("bonjourIPServiceOptions");
inline constexpr QLatin1StringView disconnectBonjourIPService =
    QLatin1StringView("disconnectBonjourIPService");
inline constexpr QLatin1StringView googleServiceOptions = QLatin1StringView("googleServiceOptions");
inline constexpr QLatin1StringView disconnectGoogleService = QLatin1StringView("disconnectGoogleService");
inline constexpr QLatin1StringView setBonjourPublisherInfo = QLatin1StringView("setBonjourPublisherInfo");
inline constexpr QLatin1StringView log = QLatin1StringView("log");
inline constexpr QLatin1StringView checkForUpdate = QLatin1StringView("checkForUpdate");
inline constexpr QLatin1StringView autoCheckForUpdatesChanged =
    QLatin1StringView("autoCheckForUpdatesChanged");
inline constexpr QLatin1StringView syncHistoryWillBeReset = QLatin1StringView("syncHistoryWillBeReset");
inline constexpr QLatin1StringView syncHistoryWasReset = QLatin1StringView("syncHistoryWasReset");
inline constexpr QLatin1StringView resetDatabase = QLatin1StringView("resetDatabase");
inline constexpr QLatin1StringView shutdown = QLatin1StringView("shutdown");
} // namespace method

struct AppProtocolMethod
{
    QLatin1StringView name;
    bool oneWay;
};

// Every method of the protocol, in the interface's order.
inline constexpr std::array<AppProtocolMethod, 25> kAppProtocolMethods = {{
    {method::version, false},
    {method::calendarsPublishableViaBonjour, false},
    {method::sourceListOfBonjourCalendars, false},
    {method::calendarsPublishableToGoogle, false},
    {method::sourceListOfGoogleCalendars, false},
    {method::bonjourPublisherInfo, false},
    {method::googleSyncInProgress, false},
    {method::techSupportInfo, false},
    {method::publishCalendarViaBonjour, true},
    {method::publishCalendarToGoogle, true},
    {method::subscribeTo, true},
    {method::publishOptions, true},
    {method::subscribeOptions, true},
    {method::bonjourIPServiceOptions, true},
    {method::disconnectBonjourIPService, true},
    {method::googleServiceOptions, true},
    {method::disconnectGoogleService, true},
    {method::setBonjourPublisherInfo, true},
    {method::log, true},
    {method::checkForUpdate, true},
    {method::autoCheckForUpdatesChanged, true},
    {method::syncHistoryWillBeReset, true},
    {method::syncHistoryWasReset, true},
    {method::resetDatabase, true},
    {method::shutdown, true},
}};

} // namespace nimbrel

#pragma once

// The background application's broadcast notifications: one D-Bus signal,
// com.quorvia.Nimbrel.Notifications.Posted(s name) on /com/quorvia/Nimbrel/Notifications, the name being
// the notification's exact text.

#include <QLatin1StringView>
#include <QString>
#include <array>

namespace nimbrel {

inline const QString kNotificationsPath = QStringLiteral("/com/quorvia/Nimbrel/Notifications");
inline const QString kNotificationsInterface = QStringLiteral("com.quorvia.Nimbrel.Notifications");
inline const QString kNotificationsSignal = QStringLiteral("Posted");

// The names, exact ("Bonjour" in "Nimbrel Bonjour Checked Update" included: that is what is posted).
namespace notification {
inline constexpr QLatin1StringView running = QLatin1StringView("Nimbrel Running");
inline constexpr QLatin1StringView stopped = QLatin1StringView("Nimbrel Stopped");
inline constexpr QLatin1StringView reset = QLatin1StringView("Nimbrel Reset");
inline constexpr QLatin1StringView calendarsChanged = QLatin1StringView("Nimbrel Calendars Changed");
inline constexpr QLatin1StringView bonjourUpdate = QLatin1StringView("Nimbrel Bonjour Update");
inline constexpr QLatin1StringView bonjourPublishableChange =
    QLatin1StringView("Nimbrel Bonjour Publishable Change");
inline constexpr QLatin1StringView bonjourChange = QLatin1StringView("Nimbrel Bonjour Change");
inline constexpr QLatin1StringView bonjourNamePublished = QLatin1StringView("Nimbrel Bonjour Name Published");
inline constexpr QLatin1StringView checkedUpdate = QLatin1StringView("Nimbrel Bonjour Checked Update");
inline constexpr QLatin1StringView googleUpdate = QLatin1StringView("Nimbrel Google Update");
inline constexpr QLatin1StringView googleChange = QLatin1StringView("Nimbrel Google Change");

// All eleven, in the order the link observes them.
inline constexpr std::array<QLatin1StringView, 11> all = {
    running,       stopped,
    reset,         calendarsChanged,
    bonjourUpdate, bonjourPublishableChange,
    bonjourChange, bonjourNamePublished,
    checkedUpdate, googleUpdate,
    googleChange,
};
} // namespace notification

} // namespace nimbrel

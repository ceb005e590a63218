#pragma once

// The pane's one link to the background application: the shared settings, the background
// application's notifications, the connection to its remote object, the state of the companion
// applications and the four calendar lists.

#include "link/AppProtocolProxy.h"
#include "model/CalendarLink.h"
#include "model/NimbrelCalendar.h"
#include "platform/Bundle.h"

#include <QDateTime>
#include <QObject>
#include <QVariantMap>
#include <functional>
#include <memory>
#include <optional>

namespace nimbrel {

class NimbrelComDelegate;
class NotificationBus;
class RunLoop;
class SettingsStore;

// Reply time-out of the handshake, and the delays of the request-and-confirmation timers (seconds).
inline constexpr int kHandshakeTimeoutMs = 10000;
inline constexpr double kBackgroundAppStateChangeDelay = 20.0;
inline constexpr double kBonjourInfoChangeDelay = 10.0;
inline constexpr double kReconnectDelay = 1.0;
inline constexpr double kCheckForUpdateDelay = 20.0;
inline constexpr double kResetDatabaseDelay = 90.0;

class NimbrelCom : public QObject, public CalendarLink
{
    Q_OBJECT
public:
    // initWithDelegate:andBundle: — loads the background application's built-in defaults
    // (Resources/Nimbrel.app/Resources/UserDefaults.plist); makes no connection. The run loop and the
    // bus connection default to the program's own; tests pass a virtual loop and a private bus.
    NimbrelCom(NimbrelComDelegate* delegate, const Bundle& bundle, RunLoop* runLoop = nullptr,
               const QDBusConnection& connection = QDBusConnection::sessionBus());
    ~NimbrelCom() override;

    const Bundle& bundle() const { return m_bundle; }
    const QVariantMap& userDefaults() const { return m_userDefaults; }

    // ---- Shared settings ----------------------------------------------------------------------
    bool firstLaunch(bool* outWelcome);
    void touchLastResetDate();
    bool autoCheckForUpdates();
    void setAutoCheckForUpdates(bool on);
    QDateTime lastUpdateCheckTime(); // the reference date (2001-01-01 UTC) when unset
    SettingsStore& sharedSettings();

    // ---- Connection ---------------------------------------------------------------------------
    void connect();
    void disconnect();
    bool isConnected() const { return m_proxy != nullptr; }
    AppProtocolProxy* proxy() const { return m_proxy.get(); }
    // The handshake's reply time-out; tests shorten it to keep the suite fast.
    void setHandshakeTimeout(int milliseconds) { m_handshakeTimeoutMs = milliseconds; }

    // Bonjour publisher settings, as last fetched: nullopt when not connected or never fetched
    // successfully. A copy, so that no caller keeps a reference into a cache a disconnect drops.
    std::optional<QVariantMap> bonjourInfo();
    void setBonjourInfo(const QVariantMap& info);
    void bonjourInfoChangeTimeout();
    void bonjourNamePublished();

    // Forwarders.
    void setPublishOptions(const QVariantMap& calendar) override;
    void setSubscribeOptions(const QVariantMap& calendar) override;
    void setServerOptions(const QVariantMap& server);
    void disconnectServer(const QVariantMap& server);
    void setGoogleOptions(const QVariantMap& settings);
    void disconnectGoogle(const QVariantMap& settings);

    // ---- Companion applications ---------------------------------------------------------------
    // isRunning:outPSN: — process lookup by bundle identifier; *outPid is 0 when nothing matched.
    bool isRunning(const QString& identifier, qint64* outPid = nullptr) const;
    // Replaces the process lookup (identifier → PID, 0 = not running); tests decide what "runs".
    // An empty function restores the /proc scan.
    void setProcessLookup(std::function<qint64(const QString&)> lookup);
    // The background application's bundle identifier (its Info.plist, else kBackgroundAppIdentifier);
    // the menu-bar application's is the same followed by ".menu".
    const QString& backgroundAppIdentifier() const { return m_backgroundAppIdentifier; }
    QString menuBarAppIdentifier() const;
    void activate();
    void deactivate();
    bool backgroundAppRunning() const { return m_backgroundAppRunning; }
    bool backgroundAppResponsive() const { return m_backgroundAppResponding; }
    bool menuBarAppRunning() const { return m_menuBarAppRunning; }
    void backgroundAppStateChangeTimeout();
    void backgroundAppLaunched();
    void backgroundAppTerminated();
    // Start or stop; the answer arrives as nimbrelBackgroundAppStateChange. The login item follows.
    void setBackgroundAppRunning(bool wanted);
    void stopBackgroundApp();
    void setMenuBarAppRunning(bool wanted);
    // The app bundles among the pane bundle's resources (empty when missing).
    QString backgroundAppPath() const;
    QString menuBarAppPath() const;
    bool launchBackgroundAppAtStartup();
    bool launchMenuBarAppAtStartup();
    bool startsAtLogin(const QString& appPath);
    void setStartsAtLogin(bool wanted, const QString& appPath);
    // Replace how companions are started (app bundle path → started) and asked to quit (PID); tests
    // record instead of launching. Empty functions restore the real ones.
    void setApplicationLauncher(std::function<bool(const QString&)> launcher);
    void setApplicationTerminator(std::function<void(qint64)> terminator);

    // ---- Update check, database reset, support ------------------------------------------------
    void checkForUpdate();
    void checkForUpdateTimeout();
    bool backgroundAppDatabaseExists();
    void resetDatabase();
    void resetDatabaseTimeout();
    void syncHistoryWillBeReset();
    void syncHistoryWasReset();
    void techSupportInfo();
    void log(const QString& text);

    // ---- Calendar lists -----------------------------------------------------------------------
    std::shared_ptr<CalendarList> calendarsPublishableViaBonjour();
    std::shared_ptr<CalendarList> sourceListOfBonjourCalendars();
    std::shared_ptr<CalendarList> calendarsPublishableToGoogle();
    std::shared_ptr<CalendarList> sourceListOfGoogleCalendars();
    CalendarRef matchingCalendar(const NimbrelCalendar& calendar, const CalendarList& list) const;
    CalendarRef calendarWithDict(const QVariantMap& dictionary, const CalendarList& list);
    CalendarRef sourceOfCalendarWithDict(const QVariantMap& dictionary);
    void publishViaBonjour(const QVariantMap& calendar, bool informDelegateIfPublished) override;
    void subscribeTo(const QVariantMap& calendar, bool informDelegateIfSubscribed) override;
    void publishToGoogle(const QVariantMap& calendar) override;
    void setCalendarList(CalendarList& kept, const CalendarList& fresh, NimbrelCalendar* source);
    void calcChangesForPublishedCalendars();
    void calcChangesForSubscribedCalendars();

    // ---- Notification handlers (the notification itself carries nothing the link reads) -------
    void calendarsChanged();
    void bonjourServiceUpdate();
    void publishableCalendarsChanged();
    void subscribeCalendarsChanged();
    void googleServiceUpdate();
    void googleSynchingChanged();
    void backgroundAppReset();
    void updateChecked();

private:
    void registerNotifications();
    const void* selfTarget() const { return static_cast<const QObject*>(this); }
    void performAfterDelay(const char* selector, double seconds, void (NimbrelCom::*method)());
    void cancelPerform(const char* selector);
    using ListRequest = std::optional<QVariantList> (AppProtocolProxy::*)() const;
    // The delegate's notices are aimed at the delegate object itself (its most derived address), so
    // that the pane's "cancel everything aimed at me" reaches them whatever its base classes.
    const void* delegateTarget() const;
    // A fresh list from the proxy, wrapped and sorted; nullopt when the fetch failed (no proxy counts
    // as an empty answer).
    std::optional<CalendarList> fetchFresh(ListRequest request, bool byTitle);
    std::shared_ptr<CalendarList> fetchList(std::shared_ptr<CalendarList>& field, ListRequest request,
                                            bool byTitle);
    void recalculate(std::shared_ptr<CalendarList>& field, ListRequest request, bool byTitle);

    // Fields in the order the link declares them.
    Bundle m_bundle;
    NimbrelComDelegate* m_delegate;
    QVariantMap m_userDefaults;
    std::unique_ptr<AppProtocolProxy> m_proxy;
    std::shared_ptr<CalendarList> m_proxy_published_calendars;
    std::shared_ptr<CalendarList> m_proxy_subscribed_calendars;
    std::optional<QVariantMap> m_proxy_bonjourInfo;
    std::shared_ptr<CalendarList> m_proxy_google_published_calendars;
    std::shared_ptr<CalendarList> m_proxy_google_subscribed_calendars;
    bool m_backgroundAppRunning = false;
    bool m_backgroundAppResponding = false;
    bool m_menuBarAppRunning = false;

    // Platform plumbing.
    RunLoop* m_runLoop;
    QDBusConnection m_connection;
    std::unique_ptr<NotificationBus> m_notifications;
    std::unique_ptr<SettingsStore> m_sharedSettings;
    QString m_backgroundAppIdentifier;
    std::function<qint64(const QString&)> m_processLookup;
    std::function<bool(const QString&)> m_launcher;
    std::function<void(qint64)> m_terminator;
    int m_handshakeTimeoutMs = kHandshakeTimeoutMs;
};

} // namespace nimbrel

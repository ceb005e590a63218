#pragma once

// Software-update checks: the feed is an RSS 2.0 appcast whose items carry the offered version as
// attributes of their <enclosure> (or as child elements of the item) in the kVersionNamespace
// namespace. A check fetches the feed, finds the newest version offered and compares it with ours; it
// only reports (the log says "update available: X" or "up to date"), it installs nothing.
//
// Settings: "checkForUpdateInterval" (seconds) from the shared settings, else from the app bundle's
// UserDefaults.plist, else one day; 1e9 or more turns the automatic check off. Written into the shared
// settings: "SULastCheckTime" (a UTC date) after every check that read the feed; "NimbrelUpdateCheckAttempt"
// after every check, and "NimbrelUpdateCheckError" (why it failed; removed by a check that succeeds);
// "NimbrelFirstStart" once, so that the first automatic check comes one interval after the first start.
// The environment variable NIMBREL_UPDATE_FEED overrides the feed URL of UserDefaults.plist "SUFeedURL".

#include <QDateTime>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QUrl>
#include <QVariantMap>
#include <functional>
#include <optional>

class QNetworkAccessManager;
class QNetworkReply;

namespace nimbrel {
class SettingsStore;
}

namespace nimbrel::background {

inline const QString kVersionNamespace =
    QStringLiteral("http://www.andymatuschak.org/xml-namespaces/sparkle");
inline constexpr double kAutoCheckOffInterval = 1e9;
inline constexpr double kDefaultCheckInterval = 86400;
inline constexpr double kMinimumCheckInterval = 3600; // a tiny interval must not hammer the feed
inline constexpr double kRetryAfterFailure = 3600;
inline constexpr int kFeedTransferTimeoutMs = 30000;
inline constexpr qint64 kMaxFeedBytes = 4 * 1024 * 1024;

// ---- Pure parts ---------------------------------------------------------------------------------------

// The newest version the feed offers ("" when it offers none), or nullopt with `error` set when the
// text is not a well-formed RSS document.
std::optional<QString> newestFeedVersion(const QByteArray& xml, QString* error = nullptr);

// Numeric comparison part by part ("1.10" > "1.9"); on equal numbers a release beats a suffixed
// pre-release ("1.2" > "1.2b3"). <0, 0 or >0.
int compareVersions(const QString& a, const QString& b);

// What the shared settings say of earlier checks.
struct CheckHistory
{
    std::optional<QDateTime> lastCheck;   // the last check that read the feed
    std::optional<QDateTime> lastAttempt; // the last check, whatever came of it
    std::optional<QDateTime> firstStart;
};

// Seconds from `now` until the next automatic check, or nullopt when checking is off: one interval
// after the last check (or after the first start when there was none); after a failed attempt not
// before kRetryAfterFailure has passed. Never negative (an overdue check runs at once) and never more
// than one interval (a date in the future, the clock set back).
std::optional<double> secondsUntilNextCheck(double interval, const CheckHistory& history,
                                            const QDateTime& now);

// "checkForUpdateInterval" from the shared settings, else the defaults, else kDefaultCheckInterval.
double updateCheckInterval(const SettingsStore& shared, const QVariantMap& userDefaults);

// NIMBREL_UPDATE_FEED when set, else "SUFeedURL" of the defaults (empty when neither).
QUrl updateFeedUrl(const QVariantMap& userDefaults);

// ---- One check ----------------------------------------------------------------------------------------

struct UpdateCheckResult
{
    bool feedRead = false; // the feed was fetched and understood
    QString newestVersion; // empty when the feed offers none
    bool newerAvailable = false;
    QString error; // why the feed could not be read
};

// Fetches the feed once (redirects followed, 30 s transfer time-out) and logs the outcome. finished()
// is always emitted later from the event loop, never from start() itself.
class UpdateCheck : public QObject
{
    Q_OBJECT
public:
    UpdateCheck(const QUrl& feed, const QString& currentVersion, QObject* parent = nullptr);
    ~UpdateCheck() override;

    void start();
    bool isRunning() const { return m_running; }

signals:
    void finished(const nimbrel::background::UpdateCheckResult& result);

private:
    void complete(QNetworkReply* reply);
    void finish(UpdateCheckResult result);

    QUrl m_feed;
    QString m_currentVersion;
    QNetworkAccessManager* m_network = nullptr;
    bool m_running = false;
};

// ---- The application's checks -------------------------------------------------------------------------

// Runs checks on request and on the schedule of the shared settings, records "SULastCheckTime" and
// posts "Nimbrel Bonjour Checked Update": after every requested check, and after a scheduled one that
// read the feed (the last-check date changed). Timers run on RunLoop::current(); the clock is
// injectable so that tests run in virtual time.
class UpdateScheduler : public QObject
{
    Q_OBJECT
public:
    using Poster = std::function<void(const QString& notificationName)>;
    using Clock = std::function<QDateTime()>;

    UpdateScheduler(const QUrl& feed, const QString& currentVersion, SettingsStore& shared,
                    const QVariantMap& userDefaults, Poster post, Clock clock = {},
                    QObject* parent = nullptr);
    ~UpdateScheduler() override;

    // Plans the next automatic check from the settings (re-read first); cancels the one planned before.
    // From the first call on, every finished check plans the next one.
    void reschedule();
    // Starts a check now; while one runs, a request joins it.
    void checkNow(bool requested);
    // Cancels the plan (no more automatic checks) and abandons a running check without posting.
    void stop();

    bool isChecking() const { return m_check != nullptr; }

signals:
    void checked(const nimbrel::background::UpdateCheckResult& result);

private:
    void checkFinished(const UpdateCheckResult& result);

    QUrl m_feed;
    QString m_currentVersion;
    SettingsStore& m_shared;
    QVariantMap m_userDefaults;
    Poster m_post;
    Clock m_clock;
    QPointer<UpdateCheck> m_check;
    bool m_requestPending = false;
    bool m_scheduling = false;
};

} // namespace nimbrel::background

#include "UpdateCheck.h"

#include "SharedSettings.h"
#include "logging/Log.h"
#include "platform/RunLoop.h"
#include "platform/SettingsStore.h"
#include "protocol/Notifications.h"

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QVersionNumber>
#include <QXmlStreamReader>
#include <algorithm>
#include <cmath>
#include <utility>

namespace nimbrel::background {

namespace {

const QString kIntervalKey = QStringLiteral("checkForUpdateInterval");
const QString kLastCheckKey = QStringLiteral("SULastCheckTime");
const QString kAttemptKey = QStringLiteral("NimbrelUpdateCheckAttempt");
const QString kErrorKey = QStringLiteral("NimbrelUpdateCheckError");
const QString kFirstStartKey = QStringLiteral("NimbrelFirstStart");
const QByteArray kScheduledCheck = QByteArrayLiteral("scheduledCheck");

bool isNumber(const QVariant& value)
{
    switch (value.typeId()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Double:
        return true;
    default:
        return false;
    }
}

// The numeric part and what follows it; a leading "v" is not part of either.
QVersionNumber splitVersion(QString text, QString* suffix)
{
    text = text.trimmed();
    if (text.startsWith(QLatin1Char('v'), Qt::CaseInsensitive))
        text.remove(0, 1);
    qsizetype suffixIndex = 0;
    const QVersionNumber number = QVersionNumber::fromString(text, &suffixIndex).normalized();
    *suffix = text.mid(suffixIndex);
    return number;
}

} // namespace

// ---- Pure parts ---------------------------------------------------------------------------------------

std::optional<QString> newestFeedVersion(const QByteArray& xml, QString* error)
{
    QXmlStreamReader reader(xml);
    bool sawRoot = false;
    bool inItem = false;
    QString itemVersion;
    QString itemShortVersion;
    QString newest;
    while (!reader.atEnd()) {
        reader.readNext();
        if (reader.isStartElement()) {
            const bool plain = reader.namespaceUri().isEmpty();
            if (!sawRoot) {
                sawRoot = true;
                if (!plain || reader.name() != QLatin1String("rss")) {
                    if (error)
                        *error = QStringLiteral("the document is not an RSS feed");
                    return std::nullopt;
                }
            } else if (plain && reader.name() == QLatin1String("item")) {
                inItem = true;
                itemVersion.clear();
                itemShortVersion.clear();
            } else if (inItem && plain && reader.name() == QLatin1String("enclosure")) {
                const QXmlStreamAttributes attributes = reader.attributes();
                const QString version =
                    attributes.value(kVersionNamespace, QLatin1String("version")).toString();
                const QString shortVersion =
                    attributes.value(kVersionNamespace, QLatin1String("shortVersionString")).toString();
                if (!version.isEmpty())
                    itemVersion = version;
                if (!shortVersion.isEmpty())
                    itemShortVersion = shortVersion;
            } else if (inItem && reader.namespaceUri() == kVersionNamespace) {
                // Newer feeds name the version in elements of the item instead of the enclosure.
                const bool isShort = reader.name() == QLatin1String("shortVersionString");
                const bool isVersion = reader.name() == QLatin1String("version");
                if (isShort || isVersion) {
                    const QString text = reader.readElementText().trimmed();
                    if (!text.isEmpty())
                        (isShort ? itemShortVersion : itemVersion) = text;
                }
            }
        } else if (reader.isEndElement() && inItem && reader.namespaceUri().isEmpty() &&
                   reader.name() == QLatin1String("item")) {
            inItem = false;
            // Ours is a short version string: compare like with like when the feed has both.
            const QString offered = (itemShortVersion.isEmpty() ? itemVersion : itemShortVersion).trimmed();
            if (!offered.isEmpty() && (newest.isEmpty() || compareVersions(offered, newest) > 0))
                newest = offered;
        }
    }
    if (reader.hasError() || !sawRoot) {
        if (error) {
            *error = sawRoot
                         ? QStringLiteral("line %1: %2").arg(reader.lineNumber()).arg(reader.errorString())
                         : QStringLiteral("the document is empty");
        }
        return std::nullopt;
    }
    return newest;
}

int compareVersions(const QString& a, const QString& b)
{
    QString suffixA;
    QString suffixB;
    const int numbers = QVersionNumber::compare(splitVersion(a, &suffixA), splitVersion(b, &suffixB));
    if (numbers != 0)
        return numbers;
    if (suffixA == suffixB)
        return 0;
    if (suffixA.isEmpty())
        return 1;
    if (suffixB.isEmpty())
        return -1;
    return QString::compare(suffixA, suffixB, Qt::CaseInsensitive) < 0 ? -1 : 1;
}

std::optional<double> secondsUntilNextCheck(double interval, const CheckHistory& history,
                                            const QDateTime& now)
{
    if (!std::isfinite(interval) || interval >= kAutoCheckOffInterval)
        return std::nullopt;
    const double effective = std::max(interval, kMinimumCheckInterval);
    const auto secondsSince = [&now](const std::optional<QDateTime>& date) {
        return date && date->isValid() ? std::optional<double>(double(date->msecsTo(now)) / 1000.0)
                                       : std::nullopt;
    };
    const std::optional<double> sinceCheck = secondsSince(history.lastCheck);
    const std::optional<double> sinceAttempt = secondsSince(history.lastAttempt);
    double delay = 0;
    if (sinceCheck)
        delay = effective - *sinceCheck;
    else if (const std::optional<double> sinceStart = secondsSince(history.firstStart))
        delay = effective - *sinceStart;
    // An attempt after the last good check failed: not again before the retry time.
    if (sinceAttempt && (!sinceCheck || *sinceAttempt < *sinceCheck))
        delay = std::max(delay, kRetryAfterFailure - *sinceAttempt);
    return std::clamp(delay, 0.0, std::max(effective, kRetryAfterFailure));
}

double updateCheckInterval(const SettingsStore& shared, const QVariantMap& userDefaults)
{
    if (const std::optional<double> stored = shared.numberValue(kIntervalKey))
        return *stored;
    const QVariant fallback = userDefaults.value(kIntervalKey);
    return isNumber(fallback) ? fallback.toDouble() : kDefaultCheckInterval;
}

QUrl updateFeedUrl(const QVariantMap& userDefaults)
{
    const QString override = qEnvironmentVariable("NIMBREL_UPDATE_FEED");
    const QString text =
        override.isEmpty() ? userDefaults.value(QStringLiteral("SUFeedURL")).toString() : override;
    if (text.isEmpty())
        return QUrl();
    const QUrl url(text);
    return url.scheme().isEmpty() ? QUrl::fromLocalFile(text) : url;
}

// ---- One check ----------------------------------------------------------------------------------------

UpdateCheck::UpdateCheck(const QUrl& feed, const QString& currentVersion, QObject* parent)
    : QObject(parent), m_feed(feed), m_currentVersion(currentVersion)
{
}

UpdateCheck::~UpdateCheck() = default;

void UpdateCheck::start()
{
    if (m_running)
        return;
    m_running = true;
    if (!m_feed.isValid() || m_feed.isEmpty()) {
        QMetaObject::invokeMethod(
            this,
            [this] {
                finish({false, {}, false, QStringLiteral("no update feed is configured")});
            },
            Qt::QueuedConnection);
        return;
    }
    Log(5, "Checking for updates at %@", m_feed.toDisplayString());
    if (!m_network)
        m_network = new QNetworkAccessManager(this);
    QNetworkRequest request(m_feed);
    request.setAttribute(QNetworkRequest::RedirectPolicyAttribute, QNetworkRequest::NoLessSafeRedirectPolicy);
    request.setTransferTimeout(kFeedTransferTimeoutMs);
    request.setHeader(QNetworkRequest::UserAgentHeader, QStringLiteral("Nimbrel/%1").arg(m_currentVersion));
    QNetworkReply* reply = m_network->get(request);
    connect(reply, &QNetworkReply::downloadProgress, reply, [reply](qint64 received, qint64) {
        if (received > kMaxFeedBytes) {
            reply->setProperty("tooLarge", true);
            reply->abort();
        }
    });
    connect(reply, &QNetworkReply::finished, this, [this, reply] { complete(reply); });
}

void UpdateCheck::complete(QNetworkReply* reply)
{
    reply->deleteLater();
    UpdateCheckResult result;
    if (reply->error() != QNetworkReply::NoError) {
        result.error = reply->property("tooLarge").toBool()
                           ? QStringLiteral("the feed is larger than %1 bytes").arg(kMaxFeedBytes)
                           : reply->errorString();
        finish(result);
        return;
    }
    QString parseError;
    const std::optional<QString> newest = newestFeedVersion(reply->readAll(), &parseError);
    if (!newest) {
        result.error = QStringLiteral("the feed cannot be read: ") + parseError;
        finish(result);
        return;
    }
    result.feedRead = true;
    result.newestVersion = *newest;
    result.newerAvailable = !newest->isEmpty() && compareVersions(*newest, m_currentVersion) > 0;
    finish(result);
}

void UpdateCheck::finish(UpdateCheckResult result)
{
    m_running = false;
    if (!result.feedRead)
        Log(10, "Update check failed (%@): %@", m_feed.toDisplayString(), result.error);
    else if (result.newerAvailable)
        Log(10, "update available: %@", result.newestVersion);
    else
        Log(10, "up to date");
    emit finished(result);
}

// ---- The application's checks -------------------------------------------------------------------------

UpdateScheduler::UpdateScheduler(const QUrl& feed, const QString& currentVersion, SettingsStore& shared,
                                 const QVariantMap& userDefaults, Poster post, Clock clock, QObject* parent)
    : QObject(parent), m_feed(feed), m_currentVersion(currentVersion), m_shared(shared),
      m_userDefaults(userDefaults), m_post(std::move(post)), m_clock(std::move(clock))
{
    if (!m_clock)
        m_clock = [] { return QDateTime::currentDateTimeUtc(); };
}

UpdateScheduler::~UpdateScheduler()
{
    stop();
}

void UpdateScheduler::reschedule()
{
    RunLoop& loop = RunLoop::current();
    loop.cancelPreviousPerformRequests(this, kScheduledCheck);
    m_scheduling = true;
    m_shared.sync(); // the panel may just have changed the interval
    noteCorruptSettings(m_shared);
    const CheckHistory history{m_shared.dateValue(kLastCheckKey), m_shared.dateValue(kAttemptKey),
                               m_shared.dateValue(kFirstStartKey)};
    if (!history.lastCheck && !history.lastAttempt && !history.firstStart &&
        !m_shared.setValue(kFirstStartKey, m_clock().toUTC()))
        Log(13, "checkForUpdate: %@ could not be written to %@", kFirstStartKey, m_shared.path());
    const double interval = updateCheckInterval(m_shared, m_userDefaults);
    const std::optional<double> delay = secondsUntilNextCheck(
        interval, {history.lastCheck, history.lastAttempt, history.firstStart.value_or(m_clock().toUTC())},
        m_clock());
    if (!delay) {
        Log(5, "Automatic update checks are off");
        return;
    }
    Log(5, "Next automatic update check in %.0f seconds", *delay);
    loop.performAfterDelay(this, kScheduledCheck, *delay, [this] { checkNow(false); });
}

void UpdateScheduler::checkNow(bool requested)
{
    m_requestPending = m_requestPending || requested;
    if (m_check)
        return;
    m_check = new UpdateCheck(m_feed, m_currentVersion, this);
    connect(m_check, &UpdateCheck::finished, this, &UpdateScheduler::checkFinished);
    m_check->start();
}

void UpdateScheduler::stop()
{
    RunLoop::current().cancelAllPerformRequests(this);
    m_scheduling = false;
    delete m_check.data();
    m_check = nullptr;
    m_requestPending = false;
}

void UpdateScheduler::checkFinished(const UpdateCheckResult& result)
{
    if (m_check)
        m_check->deleteLater();
    m_check = nullptr;
    const bool requested = std::exchange(m_requestPending, false);
    // Every attempt is recorded, so that a failing feed is not tried again on every start.
    const QDateTime now = m_clock().toUTC();
    const bool recorded =
        m_shared.setValue(kAttemptKey, now) &&
        (result.feedRead ? m_shared.setValue(kLastCheckKey, now) && m_shared.remove(kErrorKey)
                         : m_shared.setValue(kErrorKey, result.error));
    if (!recorded)
        Log(13, "checkForUpdate: the outcome could not be written to %@", m_shared.path());
    if ((requested || result.feedRead) && m_post)
        m_post(QString(notification::checkedUpdate));
    emit checked(result);
    if (m_scheduling)
        reschedule();
}

} // namespace nimbrel::background

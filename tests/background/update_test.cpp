// Update checks: reading the feed, comparing versions, planning the automatic check in virtual time,
// and what a check leaves behind (the dates, the error, the confirmation) against local feed files.

#include "BackgroundApp.h"
#include "UpdateCheck.h"
#include "platform/SettingsStore.h"
#include "platform/VirtualRunLoop.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QFile>
#include <QUrl>
#include <gtest/gtest.h>
#include <limits>

using namespace nimbrel;
using namespace nimbrel::background;
using nimbrel::test::makeTempDir;
using nimbrel::test::waitUntil;

namespace {

using nimbrel::test::s;

const QString kChecked = s("Nimbrel Bonjour Checked Update");

// An appcast document; `items` go inside <channel>, with the prefix nv bound to the version namespace.
QByteArray feed(const QString& items)
{
    return QStringLiteral("<?xml version=\"1.0\"?>\n<rss version=\"2.0\" xmlns:nv=\"%1\"><channel>"
                          "<title>Nimbrel</title>%2</channel></rss>")
        .arg(kVersionNamespace, items)
        .toUtf8();
}

QByteArray feed(const char* items)
{
    return feed(s(items));
}

QByteArray offering(const QString& version)
{
    return feed(
        QStringLiteral("<item><enclosure url=\"https://example.invalid/u.zip\" nv:shortVersionString=\"%1\"/>"
                       "</item>")
            .arg(version));
}

// Writes <folder>/appcast.xml and returns its path.
QString writeFeed(const QString& folder, const QByteArray& content)
{
    const QString path = folder + s("/appcast.xml");
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(content);
    return path;
}

const QString kAppBundle = test::paneBundlePath() + s("/Resources/Nimbrel.app");

TEST(UpdateFeedTest, NewestVersionOffered)
{
    const struct
    {
        const char* name;
        QByteArray xml;
        std::optional<QString> newest;
    } cases[] = {
        {"newest is not the first item",
         feed("<item><enclosure nv:version=\"1.2\"/></item><item><enclosure nv:version=\"1.10\"/></item>"
              "<item><enclosure nv:version=\"1.9\"/></item>"),
         s("1.10")},
        {"short version preferred over the build number",
         feed("<item><enclosure nv:version=\"345\" nv:shortVersionString=\"2.0\"/></item>"), s("2.0")},
        {"version elements of the item",
         feed("<item><nv:version>12</nv:version><nv:shortVersionString>3.1</nv:shortVersionString>"
              "<enclosure url=\"x\"/></item>"),
         s("3.1")},
        {"attributes outside the namespace do not count",
         feed("<item><enclosure version=\"9.9\"/></item><item><enclosure nv:version=\"1.0\"/></item>"),
         s("1.0")},
        {"a version outside any item does not count",
         feed("<nv:version>8.0</nv:version><item><enclosure nv:version=\"1.0\"/></item>"), s("1.0")},
        {"no versioned item", feed("<item><title>news</title></item>"), s("")},
        {"malformed", QByteArray("<rss><channel><item></channel></rss>"), std::nullopt},
        {"not RSS", QByteArray("<feed><entry/></feed>"), std::nullopt},
        {"empty", QByteArray(), std::nullopt},
    };
    for (const auto& c : cases) {
        QString error;
        const std::optional<QString> newest = newestFeedVersion(c.xml, &error);
        EXPECT_EQ(newest, c.newest) << c.name;
        EXPECT_EQ(error.isEmpty(), newest.has_value()) << c.name;
    }
}

TEST(UpdateFeedTest, VersionOrder)
{
    const auto sign = [](int x) { return (x > 0) - (x < 0); };
    const std::tuple<const char*, const char*, int> cases[] = {
        {"1.10", "1.9", 1},  {"1.0", "1.0.0", 0},    {"1.2.1", "1.2", 1}, {"0.9", "1.0", -1},
        {"2.0", "2.0b1", 1}, {"2.0b1", "2.0b2", -1}, {"v1.2", "1.2", 0},  {" 3.0 ", "3.0", 0},
    };
    for (const auto& [a, b, expected] : cases) {
        EXPECT_EQ(sign(compareVersions(s(a), s(b))), expected) << a << " vs " << b;
        EXPECT_EQ(sign(compareVersions(s(b), s(a))), -expected) << b << " vs " << a;
    }
}

TEST(UpdateScheduleTest, SecondsUntilNextCheck)
{
    const QDateTime now(QDate(2024, 5, 1), QTime(12, 0), Qt::UTC);
    const auto ago = [&now](int seconds) { return std::optional<QDateTime>(now.addSecs(-seconds)); };
    const std::nullopt_t never = std::nullopt;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const struct
    {
        const char* name;
        double interval;
        CheckHistory history; // last good check, last attempt, first start
        std::optional<double> expected;
    } cases[] = {
        {"off at exactly 1e9", 1e9, {ago(10), ago(10), never}, std::nullopt},
        {"unreadable interval is off", nan, {never, never, never}, std::nullopt},
        {"first start: one interval later", 86400, {never, never, ago(0)}, 86400},
        {"started an hour ago, never checked", 86400, {never, never, ago(3600)}, 82800},
        {"checked an hour ago", 86400, {ago(3600), ago(3600), ago(999999)}, 82800},
        {"shorter interval", 7200, {ago(3600), ago(3600), never}, 3600},
        {"overdue: at once", 86400, {ago(3 * 86400), ago(3 * 86400), never}, 0},
        {"failed a minute ago, overdue", 86400, {ago(3 * 86400), ago(60), never}, kRetryAfterFailure - 60},
        {"failed long ago: at once", 86400, {never, ago(2 * 86400), ago(9 * 86400)}, 0},
        {"failed after a recent good check", 86400, {ago(7200), ago(3600), never}, 79200},
        {"tiny interval is raised", 1, {ago(0), ago(0), never}, kMinimumCheckInterval},
        {"last check in the future waits one interval",
         86400,
         {now.addDays(10), now.addDays(10), never},
         86400},
    };
    for (const auto& c : cases)
        EXPECT_EQ(secondsUntilNextCheck(c.interval, c.history, now), c.expected) << c.name;
}

TEST(UpdateScheduleTest, IntervalAndFeedSources)
{
    SettingsStore shared(makeTempDir() + s("/domain.plist"));
    const QVariantMap defaults{{s("checkForUpdateInterval"), 7200},
                               {s("SUFeedURL"), s("https://example.invalid/a.xml")}};
    EXPECT_EQ(updateCheckInterval(shared, {}), kDefaultCheckInterval);
    EXPECT_EQ(updateCheckInterval(shared, defaults), 7200);
    shared.setValue(s("checkForUpdateInterval"), s("often")); // not a number: ignored
    EXPECT_EQ(updateCheckInterval(shared, defaults), 7200);
    shared.setValue(s("checkForUpdateInterval"), 1e9);
    EXPECT_EQ(updateCheckInterval(shared, defaults), 1e9);

    qunsetenv("NIMBREL_UPDATE_FEED");
    EXPECT_EQ(updateFeedUrl(defaults), QUrl(s("https://example.invalid/a.xml")));
    EXPECT_TRUE(updateFeedUrl({}).isEmpty());
    qputenv("NIMBREL_UPDATE_FEED", "/tmp/feed.xml");
    EXPECT_EQ(updateFeedUrl(defaults), QUrl::fromLocalFile(s("/tmp/feed.xml")));
    qunsetenv("NIMBREL_UPDATE_FEED");
}

class UpdateCheckTest : public ::testing::Test
{
protected:
    std::unique_ptr<UpdateScheduler> scheduler(const QString& feedPath)
    {
        auto made = std::make_unique<UpdateScheduler>(
            QUrl::fromLocalFile(feedPath), BackgroundApp::appVersion(kAppBundle), m_shared, QVariantMap{},
            [this](const QString& name) { m_posted << name; },
            [this] { return m_clockStart.addMSecs(qint64(m_loop.now() * 1000)); });
        QObject::connect(made.get(), &UpdateScheduler::checked,
                         [this](const UpdateCheckResult& result) { m_results << result; });
        return made;
    }

    QString m_folder = makeTempDir();
    VirtualRunLoop m_loop;
    ScopedRunLoop m_scope{m_loop};
    SettingsStore m_shared{m_folder + s("/domain.plist")};
    QDateTime m_clockStart{QDate(2024, 5, 1), QTime(12, 0), Qt::UTC};
    QStringList m_posted;
    QList<UpdateCheckResult> m_results;
};

TEST_F(UpdateCheckTest, OutcomeOfOneCheck)
{
    const struct
    {
        const char* name;
        std::optional<QByteArray> content; // nullopt: the feed file does not exist
        bool requested, read, newer, posted;
    } cases[] = {
        {"newer offered", offering(s("999.0")), true, true, true, true},
        {"same version offered", offering(BackgroundApp::appVersion(kAppBundle)), true, true, false, true},
        {"older offered", offering(s("0.0.1")), false, true, false, true},
        {"unreachable, requested", std::nullopt, true, false, false, true},
        {"unreachable, scheduled", std::nullopt, false, false, false, false},
        {"not a feed, requested", QByteArray("<html>moved</html>"), true, false, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        m_shared.remove(s("SULastCheckTime"));
        m_posted.clear();
        m_results.clear();
        auto updates = scheduler(c.content ? writeFeed(m_folder, *c.content) : m_folder + s("/missing.xml"));
        updates->checkNow(c.requested);
        ASSERT_TRUE(waitUntil([&] { return !m_results.isEmpty(); }));
        EXPECT_EQ(m_results.value(0).feedRead, c.read);
        EXPECT_EQ(m_results.value(0).newerAvailable, c.newer);
        EXPECT_EQ(m_posted, c.posted ? QStringList{kChecked} : QStringList{});
        const SettingsStore stored(m_shared.path());
        EXPECT_EQ(stored.dateValue(s("SULastCheckTime")),
                  c.read ? std::optional<QDateTime>(m_clockStart) : std::nullopt);
        EXPECT_EQ(stored.dateValue(s("NimbrelUpdateCheckAttempt")), m_clockStart); // failed ones too
        EXPECT_EQ(stored.value(s("NimbrelUpdateCheckError")).isValid(), !c.read);
    }

    // A request while a check runs joins it.
    m_posted.clear();
    m_results.clear();
    auto updates = scheduler(writeFeed(m_folder, offering(s("0.1"))));
    updates->checkNow(false);
    updates->checkNow(true);
    ASSERT_TRUE(waitUntil([&] { return !m_results.isEmpty(); }));
    QCoreApplication::processEvents();
    EXPECT_EQ(m_results.size(), 1);
    EXPECT_EQ(m_posted, QStringList{kChecked});
}

TEST_F(UpdateCheckTest, AutomaticChecksFollowTheSettingsInVirtualTime)
{
    const QString feedPath = writeFeed(m_folder, offering(s("0.1")));
    m_shared.setValue(s("checkForUpdateInterval"), 7200.0);
    auto updates = scheduler(feedPath);

    // The first start checks one interval later, not at once, and remembers when it started.
    updates->reschedule();
    EXPECT_EQ(m_loop.nextDueTime(), 7200);
    EXPECT_EQ(m_shared.dateValue(s("NimbrelFirstStart")), m_clockStart);
    updates = scheduler(feedPath); // a restart an hour later still waits for the same check
    m_loop.advance(3600);
    updates->reschedule();
    EXPECT_EQ(m_loop.nextDueTime(), 7200);
    m_loop.advance(3599);
    EXPECT_FALSE(updates->isChecking());
    m_loop.advance(1);
    ASSERT_TRUE(updates->isChecking());
    ASSERT_TRUE(waitUntil([&] { return !m_results.isEmpty(); }));
    EXPECT_EQ(m_shared.dateValue(s("SULastCheckTime")), m_clockStart.addSecs(7200));
    EXPECT_EQ(m_posted, QStringList{kChecked}); // the date changed: the panel re-reads it
    EXPECT_EQ(m_loop.nextDueTime(), 7200 + 7200);

    // The panel turns checking off, then on with a day: each change replaces the plan.
    SettingsStore(m_shared.path()).setValue(s("checkForUpdateInterval"), 1e9);
    updates->reschedule();
    EXPECT_EQ(m_loop.pendingPerformCount(updates.get()), 0);
    SettingsStore(m_shared.path()).setValue(s("checkForUpdateInterval"), 86400.0);
    updates->reschedule();
    EXPECT_EQ(m_loop.nextDueTime(), 7200 + 86400);

    // A failing check is recorded and retried an hour later, silently, also after a restart.
    QFile::remove(feedPath);
    m_posted.clear();
    m_loop.advance(86400);
    ASSERT_TRUE(waitUntil([&] { return m_results.size() == 2; }));
    EXPECT_FALSE(m_results.value(1).feedRead);
    EXPECT_TRUE(m_posted.isEmpty());
    EXPECT_EQ(m_loop.nextDueTime(), m_loop.now() + kRetryAfterFailure);
    updates = scheduler(feedPath);
    updates->reschedule();
    EXPECT_EQ(m_loop.nextDueTime(), m_loop.now() + kRetryAfterFailure);

    updates->stop();
    EXPECT_EQ(m_loop.pendingPerformCount(updates.get()), 0);
}

// The stand-alone check ("-sparkle") records the time only when the feed was read.
TEST(StandaloneUpdateCheckTest, RecordsTheTimeOnlyWhenTheFeedWasRead)
{
    for (const bool reachable : {true, false}) {
        SCOPED_TRACE(reachable ? "reachable" : "unreachable");
        const QString folder = makeTempDir();
        BackgroundOptions options;
        options.appBundlePath = kAppBundle;
        options.settingsPath = folder + s("/domain.plist");
        options.keepLog = false;
        const QString feedPath =
            reachable ? writeFeed(folder, offering(s("999.0"))) : folder + s("/none.xml");
        qputenv("NIMBREL_UPDATE_FEED", QUrl::fromLocalFile(feedPath).toString().toUtf8());
        const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
        EXPECT_EQ(BackgroundApp::runUpdateCheck(options), BackgroundApp::ExitOk);
        qunsetenv("NIMBREL_UPDATE_FEED");
        const std::optional<QDateTime> recorded =
            SettingsStore(options.settingsPath).dateValue(s("SULastCheckTime"));
        EXPECT_EQ(recorded.has_value(), reachable);
        EXPECT_GE(recorded.value_or(before), before);
    }
}

} // namespace

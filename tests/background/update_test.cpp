// Update checks: reading the feed, comparing versions, planning the automatic check in virtual time,
// and what a check leaves behind (the dates, the error, the confirmation) against local feed files.

#include "BackgroundApp.h"
#include "BackgroundTestSupport.h"
#include "UpdateCheck.h"
#include "platform/SettingsStore.h"
#include "platform/VirtualRunLoop.h"

#include <QUrl>
#include <limits>

using namespace nimbrel;
using namespace nimbrel::background;
using namespace nimbrel::background::test;
using nimbrel::test::waitUntil;

namespace {

const QString kChecked = s("Nimbrel Bonjour Checked Update");
const QString kAppBundle = nimbrel::test::paneBundlePath() + s("/Resources/Nimbrel.app");
// An appcast; `items` go inside <channel>, the prefix nv bound to the version namespace.
QByteArray feed(const char* items)
{
    return QStringLiteral("<rss version=\"2.0\" xmlns:nv=\"%1\"><channel>%2</channel></rss>")
        .arg(kVersionNamespace, s(items))
        .toUtf8();
}

QByteArray offering(const QString& version)
{
    const QString item = s("<item><enclosure nv:shortVersionString=\"%1\"/></item>").arg(version);
    return feed(qPrintable(item));
}

TEST(UpdateFeedTest, NewestVersionOfferedAndVersionOrder)
{
    const std::tuple<const char*, QByteArray, std::optional<QString>> feeds[] = {
        {"newest not first",
         feed("<item><enclosure nv:version=\"1.2\"/></item><item><enclosure nv:version="
              "\"1.10\"/></item><item><enclosure nv:version=\"1.9\"/></item>"),
         s("1.10")},
        {"short version before the build number",
         feed("<item><enclosure nv:version=\"345\" nv:shortVersionString=\"2.0\"/></item>"), s("2.0")},
        {"malformed", QByteArray("<rss><channel><item></channel></rss>"), std::nullopt},
    };
    for (const auto& [name, xml, newest] : feeds) {
        QString error;
        EXPECT_EQ(newestFeedVersion(xml, &error), newest) << name;
        EXPECT_EQ(error.isEmpty(), newest.has_value()) << name;
    }
    const auto sign = [](int x) { return (x > 0) - (x < 0); };
    const std::tuple<const char*, const char*, int> versions[] = {
        {"1.0", "1.0.0", 0}, {"2.0", "2.0b1", 1}, {"2.0b1", "2.0b2", -1}, {"v1.2", "1.2", 0}};
    for (const auto& [a, b, expected] : versions) {
        EXPECT_EQ(sign(compareVersions(s(a), s(b))), expected) << a << " vs " << b;
        EXPECT_EQ(sign(compareVersions(s(b), s(a))), -expected) << b << " vs " << a;
    }
}

TEST(UpdateScheduleTest, SecondsUntilNextCheck)
{
    const QDateTime now(QDate(2024, 5, 1), QTime(12, 0), Qt::UTC);
    const auto ago = [&now](int seconds) { return std::optional<QDateTime>(now.addSecs(-seconds)); };
    const std::nullopt_t never = std::nullopt;
    const double day = 86400;
    // Interval; last good check, last attempt, first start; the delay expected.
    const std::tuple<const char*, double, CheckHistory, std::optional<double>> cases[] = {
        {"off at exactly 1e9", 1e9, {ago(10), ago(10), never}, std::nullopt},
        {"first start: one interval later", day, {never, never, ago(0)}, day},
        {"checked an hour ago", day, {ago(3600), ago(3600), ago(999999)}, day - 3600},
        {"overdue: at once", day, {ago(3 * day), ago(3 * day), never}, 0},
        {"failed a minute ago", day, {ago(3 * day), ago(60), never}, kRetryAfterFailure - 60},
        {"failed after a recent check", day, {ago(7200), ago(3600), never}, day - 7200},
    };
    for (const auto& [name, interval, history, expected] : cases)
        EXPECT_EQ(secondsUntilNextCheck(interval, history, now), expected) << name;
}

class UpdateCheckTest : public ::testing::Test
{
protected:
    std::unique_ptr<UpdateScheduler> scheduler(const QString& feedPath)
    {
        auto made = std::make_unique<UpdateScheduler>(
            QUrl::fromLocalFile(feedPath), BackgroundApp::appVersion(kAppBundle), m_shared, QVariantMap{},
            [this](const QString& name) { m_posted << name; },
            [this] { return m_start.addMSecs(qint64(m_loop.now() * 1000)); });
        QObject::connect(made.get(), &UpdateScheduler::checked,
                         [this](const UpdateCheckResult& result) { m_results << result; });
        return made;
    }
    QString feedWith(const QByteArray& content)
    {
        writeFile(m_folder + s("/appcast.xml"), content);
        return m_folder + s("/appcast.xml");
    }
    QString m_folder = makeTempDir();
    VirtualRunLoop m_loop;
    ScopedRunLoop m_scope{m_loop};
    SettingsStore m_shared{m_folder + s("/domain.plist")};
    QDateTime m_start{QDate(2024, 5, 1), QTime(12, 0), Qt::UTC};
    QStringList m_posted;
    QList<UpdateCheckResult> m_results;
};

TEST_F(UpdateCheckTest, OutcomeOfOneCheck)
{
    // Feed (nullopt: missing); requested; read, newer, posted.
    const std::tuple<const char*, std::optional<QByteArray>, bool, bool, bool, bool> cases[] = {
        {"newer offered", offering(s("999.0")), true, true, true, true},
        {"older offered, scheduled", offering(s("0.0.1")), false, true, false, true},
        {"unreachable, requested", std::nullopt, true, false, false, true},
        {"not a feed, scheduled", QByteArray("<html>moved</html>"), false, false, false, false},
    };
    for (const auto& [name, content, requested, read, newer, posted] : cases) {
        SCOPED_TRACE(name);
        m_shared.remove(s("SULastCheckTime"));
        m_posted.clear();
        m_results.clear();
        auto updates = scheduler(content ? feedWith(*content) : m_folder + s("/missing.xml"));
        updates->checkNow(requested);
        ASSERT_TRUE(waitUntil([&] { return !m_results.isEmpty(); }));
        EXPECT_EQ(m_results[0].feedRead, read);
        EXPECT_EQ(m_results[0].newerAvailable, newer);
        EXPECT_EQ(m_posted, posted ? QStringList{kChecked} : QStringList{});
        const SettingsStore stored(m_shared.path());
        EXPECT_EQ(stored.dateValue(s("SULastCheckTime")), read ? std::optional(m_start) : std::nullopt);
        EXPECT_EQ(stored.dateValue(s("NimbrelUpdateCheckAttempt")), m_start); // failed ones too
        EXPECT_EQ(stored.value(s("NimbrelUpdateCheckError")).isValid(), !read);
    }
}

TEST_F(UpdateCheckTest, AutomaticChecksFollowTheSettingsInVirtualTime)
{
    const QString feedPath = feedWith(offering(s("0.1")));
    m_shared.setValue(s("checkForUpdateInterval"), 7200.0);
    auto updates = scheduler(feedPath);
    // The first start checks one interval later, not at once, also after a restart meanwhile.
    updates->reschedule();
    EXPECT_EQ(m_loop.nextDueTime(), 7200);
    EXPECT_EQ(m_shared.dateValue(s("NimbrelFirstStart")), m_start);
    updates = scheduler(feedPath);
    m_loop.advance(3600);
    updates->reschedule();
    m_loop.advance(3599);
    EXPECT_FALSE(updates->isChecking());
    m_loop.advance(1);
    ASSERT_TRUE(updates->isChecking());
    ASSERT_TRUE(waitUntil([&] { return !m_results.isEmpty(); }));
    EXPECT_EQ(m_shared.dateValue(s("SULastCheckTime")), m_start.addSecs(7200));
    EXPECT_EQ(m_posted, QStringList{kChecked}); // the date changed: the panel re-reads it
    EXPECT_EQ(m_loop.nextDueTime(), 7200 + 7200);
    // The panel turns checking on with a day: the plan follows.
    SettingsStore(m_shared.path()).setValue(s("checkForUpdateInterval"), 86400.0);
    updates->reschedule();
    EXPECT_EQ(m_loop.nextDueTime(), 7200 + 86400);
    // A failing check is recorded and retried an hour later, silently, also after a restart.
    QFile::remove(feedPath);
    m_posted.clear();
    m_loop.advance(86400);
    ASSERT_TRUE(waitUntil([&] { return m_results.size() == 2; }));
    EXPECT_FALSE(m_results[1].feedRead);
    EXPECT_TRUE(m_posted.isEmpty());
    updates = scheduler(feedPath);
    updates->reschedule();
    EXPECT_EQ(m_loop.nextDueTime(), m_loop.now() + kRetryAfterFailure);
}

} // namespace

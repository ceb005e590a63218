// The database file: persistence, recovery from unusable files, schema version and migration,
// file mode, the sync-history reset, and what diagnostics may show.

#include "StateTestSupport.h"
#include "state/SyncHistory.h"

#include <sys/stat.h>

using namespace nimbrel::background;
using namespace nimbrel::background::test;

namespace {

using StateDatabaseTest = StateFixture;

TEST_F(StateDatabaseTest, StateSurvivesReopenInAPrivateVersionedFile)
{
    makeCalendar(calendarsRoot, "cal-a", "Alpha");
    QVariantList before;
    {
        auto state = openState();
        state->publishCalendarViaBonjour(m("uid", "cal-a", "publishedToBonjour", true));
        state->publishOptions(m("uid", "cal-a", "readPassword", "r"));
        state->bonjourIPServiceOptions(m("remoteURL", "https://dav.example.org/"));
        state->googleServiceOptions(m("remoteLogin", "me@example.org"));
        state->setBonjourPublisherInfo(m("bonjourName", "Studio", "portNumber", 4990));
        before = answers(*state);
        const QVariantMap alpha = before[0].toList().value(0).toMap();
        ASSERT_TRUE(alpha.value(s("publishedToBonjour")).toBool());
        ASSERT_EQ(alpha.value(s("readPassword")), s("r"));
        ASSERT_EQ(before[1].toList().size() + before[3].toList().size(), 2);
        ASSERT_EQ(before[4].toMap().value(s("portNumber")).toLongLong(), 4990);
    }
    EXPECT_EQ(answers(*openState()), before);

    struct stat st = {};
    ASSERT_EQ(::stat(QFile::encodeName(dbPath).constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(sql1(dbPath, "PRAGMA user_version").toInt(), kSchemaVersion);
    EXPECT_EQ(sql1(dbPath, "PRAGMA journal_mode").toString(), s("wal"));
}

// Files that are not a usable database of ours are moved aside, and a fresh one takes their place.
TEST_F(StateDatabaseTest, UnusableFileIsMovedAsideAndReplaced)
{
    const struct
    {
        const char* name;
        std::function<void(const QString&)> make;
    } cases[] = {
        {"garbage", [](const QString& p) { writeFile(p, QByteArray(4096, 'x')); }},
        {"truncated header", [](const QString& p) { writeFile(p, QByteArray("SQLite format 3\0", 16)); }},
        {"another program's tables", [](const QString& p) { sql(p, "CREATE TABLE photos (id INTEGER)"); }},
        {"newer schema", [](const QString& p) { sql(p, "PRAGMA user_version = 99"); }},
        {"our version, a table missing",
         [](const QString& p) {
             sql(p, "CREATE TABLE calendars (uid TEXT)");
             sql(p, "PRAGMA user_version = 2");
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QString dir = makeTempDir();
        const QString path = dir + s("/Nimbrel.nsql");
        c.make(path);
        const QByteArray original = readFile(path);
        StderrCapture log;
        NimbrelState state(path, dir + s("/Calendars"), dir + s("/Backup"), {});
        ASSERT_TRUE(state.open()) << state.lastError().toStdString();
        EXPECT_EQ(readFile(path + s(".corrupt")), original);
        EXPECT_TRUE(log.text().contains(s("moved unusable database")));
        EXPECT_EQ(sql1(path, "PRAGMA user_version").toInt(), kSchemaVersion);
        EXPECT_EQ(state.calendarsPublishableViaBonjour().size(), 2); // a fresh start: Home and Work
    }

    writeFile(root + s("/blocker"), "a file, not a folder");
    NimbrelState blocked(root + s("/blocker/Nimbrel.nsql"), calendarsRoot, backupRoot, {});
    EXPECT_FALSE(blocked.open());
    EXPECT_FALSE(blocked.isOpen());
    EXPECT_FALSE(blocked.lastError().isEmpty());
    EXPECT_TRUE(blocked.calendarsPublishableViaBonjour().isEmpty());
}

TEST_F(StateDatabaseTest, VersionOneIsMigratedKeepingItsRows)
{
    for (const char* statement :
         {"CREATE TABLE calendars (uid TEXT PRIMARY KEY NOT NULL, sort_order INTEGER NOT NULL DEFAULT 0,"
          " published_bonjour INTEGER NOT NULL DEFAULT 0, published_google INTEGER NOT NULL DEFAULT 0,"
          " read_password TEXT NOT NULL DEFAULT '', write_password TEXT NOT NULL DEFAULT '',"
          " read_only INTEGER NOT NULL DEFAULT 0)",
          "CREATE TABLE sources (uid TEXT PRIMARY KEY NOT NULL, kind TEXT NOT NULL, settings BLOB NOT NULL)",
          "CREATE TABLE subscriptions (uid TEXT PRIMARY KEY NOT NULL, source_uid TEXT NOT NULL,"
          " subscribed INTEGER NOT NULL DEFAULT 0, record BLOB NOT NULL)",
          "CREATE TABLE settings (key TEXT PRIMARY KEY NOT NULL, value)",
          "CREATE TABLE sync_history (id INTEGER PRIMARY KEY AUTOINCREMENT,"
          " calendar_uid TEXT NOT NULL DEFAULT '', time INTEGER NOT NULL, kind TEXT NOT NULL)",
          "INSERT INTO calendars (uid, sort_order, published_bonjour) VALUES ('cal-a', 7, 1)",
          "INSERT INTO sync_history (calendar_uid, time, kind) VALUES ('cal-a', 1000, 'itemAdded')",
          "PRAGMA user_version = 1"})
        sql(dbPath, statement);
    makeCalendar(calendarsRoot, "cal-a", "Alpha");

    auto state = openState();
    EXPECT_FALSE(QFile::exists(dbPath + s(".corrupt")));
    EXPECT_EQ(sql1(dbPath, "PRAGMA user_version").toInt(), kSchemaVersion);
    EXPECT_EQ(sql(dbPath, "SELECT kind || '/' || detail FROM sync_history"), QVariantList{s("itemAdded/")});
    const QVariantMap alpha = state->calendarsPublishableViaBonjour().value(0).toMap();
    EXPECT_EQ(alpha.value(s("order")).toLongLong(), 7);
    EXPECT_TRUE(alpha.value(s("publishedToBonjour")).toBool());
}

TEST_F(StateDatabaseTest, ClearSyncHistoryEmptiesOnlyTheHistory)
{
    QString error;
    EXPECT_TRUE(clearSyncHistory(dbPath, &error)); // nothing to clear, and nothing made
    EXPECT_FALSE(QFile::exists(dbPath));

    auto state = openState(); // making Home and Work is history
    state->setBonjourPublisherInfo(m("bonjourName", "Studio"));
    ASSERT_EQ(sql1(dbPath, "SELECT COUNT(*) FROM sync_history").toInt(), 2);
    state->pauseForSyncHistoryReset();
    EXPECT_FALSE(state->isOpen());
    ASSERT_TRUE(clearSyncHistory(dbPath, &error)) << error.toStdString();
    posts.clear();
    ASSERT_TRUE(state->resumeAfterSyncHistoryReset());
    EXPECT_EQ(posts, QStringList{s("Nimbrel Calendars Changed")});
    EXPECT_EQ(sql1(dbPath, "SELECT COUNT(*) FROM sync_history").toInt(), 0);
    EXPECT_EQ(state->calendarsPublishableViaBonjour().size(), 2);
    EXPECT_EQ(state->bonjourPublisherInfo().value(s("bonjourName")), s("Studio"));

    const QString garbage = root + s("/garbage.nsql"), foreign = root + s("/other.db");
    writeFile(garbage, QByteArray(2048, 'z'));
    EXPECT_FALSE(clearSyncHistory(garbage, &error));
    EXPECT_TRUE(error.contains(garbage));
    sql(foreign, "CREATE TABLE photos (id INTEGER)");
    error.clear();
    EXPECT_FALSE(clearSyncHistory(foreign, &error));
    EXPECT_FALSE(error.isEmpty());
}

TEST_F(StateDatabaseTest, DiagnosticsCountButShowNoPasswords)
{
    makeCalendar(calendarsRoot, "cal-a", "Alpha");
    auto state = openState();
    state->publishOptions(
        m("uid", "cal-a", "readPassword", "pw-read-4711", "writePassword", "pw-write-4711"));
    state->publishCalendarViaBonjour(m("uid", "cal-a", "publishedToBonjour", true));
    state->bonjourIPServiceOptions(
        m("remoteURL", "https://dav.example.org/", "remotePassword", "pw-server-4711"));
    state->googleServiceOptions(m("remoteLogin", "me@example.org", "remotePassword", "pw-google-4711"));

    const QString text = state->diagnostics().join(QLatin1Char('\n'));
    EXPECT_FALSE(text.contains(s("4711"))) << text.toStdString();
    for (const char* expected :
         {"schema version 3", "Local calendars: 1 (published via Bonjour: 1, to Google: 0)",
          "Remote servers: 1", "Google account: yes", "Sync history rows: 1", "Port: automatic"})
        EXPECT_TRUE(text.contains(s(expected))) << expected << "\n" << text.toStdString();
    EXPECT_TRUE(text.contains(dbPath));
}

} // namespace

// The database file: persistence, recovery from unusable files, schema version and migration,
// file mode, the sync-history reset, and what diagnostics may show.

#include "StateTestSupport.h"

#include <QFileInfo>
#include <sys/stat.h>

using namespace nimbrel::background;
using namespace nimbrel::background::test;

namespace {

class StateDatabaseTest : public StateFixture
{
};

TEST_F(StateDatabaseTest, StateSurvivesCloseAndOpen)
{
    makeCalendar(calendarsRoot, QStringLiteral("cal-a"), QStringLiteral("Alpha"));
    QVariantList published, sources, google;
    QVariantMap info;
    {
        auto state = openState();
        state->publishCalendarViaBonjour(
            {{QStringLiteral("uid"), QStringLiteral("cal-a")}, {QStringLiteral("publishedToBonjour"), true}});
        state->publishOptions({{QStringLiteral("uid"), QStringLiteral("cal-a")},
                               {QStringLiteral("readPassword"), QStringLiteral("r")}});
        state->bonjourIPServiceOptions(
            {{QStringLiteral("remoteURL"), QStringLiteral("https://dav.example.org/")}});
        state->googleServiceOptions({{QStringLiteral("remoteLogin"), QStringLiteral("me@example.org")}});
        state->setBonjourPublisherInfo({{QStringLiteral("bonjourName"), QStringLiteral("Studio")},
                                        {QStringLiteral("portNumber"), 4990}});
        published = state->calendarsPublishableViaBonjour();
        sources = state->sourceListOfBonjourCalendars();
        google = state->sourceListOfGoogleCalendars();
        info = state->bonjourPublisherInfo();
        ASSERT_EQ(sources.size(), 1);
        ASSERT_EQ(google.size(), 1);
        ASSERT_TRUE(published.value(0).toMap().value(QStringLiteral("publishedToBonjour")).toBool());
        ASSERT_EQ(published.value(0).toMap().value(QStringLiteral("readPassword")), QStringLiteral("r"));
    }
    auto again = openState();
    EXPECT_EQ(again->calendarsPublishableViaBonjour(), published);
    EXPECT_EQ(again->sourceListOfBonjourCalendars(), sources);
    EXPECT_EQ(again->sourceListOfGoogleCalendars(), google);
    EXPECT_EQ(again->bonjourPublisherInfo(), info);
    EXPECT_EQ(info.value(QStringLiteral("portNumber")).toLongLong(), 4990);
}

TEST_F(StateDatabaseTest, FileIsPrivateAndVersioned)
{
    auto state = openState();
    struct stat st
    {
    };
    ASSERT_EQ(::stat(QFile::encodeName(dbPath).constData(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0600u);
    EXPECT_EQ(peekOne(dbPath, QStringLiteral("PRAGMA user_version")).toInt(), kSchemaVersion);
    EXPECT_EQ(peekOne(dbPath, QStringLiteral("PRAGMA journal_mode")).toString(), QStringLiteral("wal"));
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
        {"another program's tables",
         [](const QString& p) { poke(p, QStringLiteral("CREATE TABLE photos (id INTEGER)")); }},
        {"newer schema", [](const QString& p) { poke(p, QStringLiteral("PRAGMA user_version = 99")); }},
        {"our version, a table missing",
         [](const QString& p) {
             poke(p, QStringLiteral("CREATE TABLE calendars (uid TEXT)"));
             poke(p, QStringLiteral("PRAGMA user_version = 2"));
         }},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const QString dir = makeTempDir();
        const QString path = dir + QStringLiteral("/Nimbrel.nsql");
        c.make(path);
        const QByteArray original = readFile(path);
        StderrCapture log;
        NimbrelState state(path, dir + QStringLiteral("/Calendars"), dir + QStringLiteral("/Backup"), {});
        ASSERT_TRUE(state.open()) << state.lastError().toStdString();
        EXPECT_EQ(readFile(path + QStringLiteral(".corrupt")), original);
        EXPECT_TRUE(log.text().contains(QStringLiteral("moved unusable database")));
        EXPECT_EQ(peekOne(path, QStringLiteral("PRAGMA user_version")).toInt(), kSchemaVersion);
        EXPECT_EQ(state.calendarsPublishableViaBonjour().size(), 2); // a fresh start: Home and Work
    }
}

TEST_F(StateDatabaseTest, NoDatabaseWhereTheFolderCannotBeMade)
{
    writeFile(root + QStringLiteral("/blocker"), "a file, not a folder");
    NimbrelState state(root + QStringLiteral("/blocker/Nimbrel.nsql"), calendarsRoot, backupRoot, {});
    EXPECT_FALSE(state.open());
    EXPECT_FALSE(state.isOpen());
    EXPECT_FALSE(state.lastError().isEmpty());
    EXPECT_TRUE(state.calendarsPublishableViaBonjour().isEmpty());
}

TEST_F(StateDatabaseTest, VersionOneIsMigratedKeepingItsRows)
{
    for (const char* sql :
         {"CREATE TABLE calendars (uid TEXT PRIMARY KEY NOT NULL, sort_order INTEGER NOT NULL DEFAULT 0,"
          " published_bonjour INTEGER NOT NULL DEFAULT 0, published_google INTEGER NOT NULL DEFAULT 0,"
          " read_password TEXT NOT NULL DEFAULT '', write_password TEXT NOT NULL DEFAULT '',"
          " read_only INTEGER NOT NULL DEFAULT 0)",
          "CREATE TABLE sources (uid TEXT PRIMARY KEY NOT NULL, kind TEXT NOT NULL, settings BLOB NOT NULL)",
          "CREATE TABLE subscriptions (uid TEXT PRIMARY KEY NOT NULL, source_uid TEXT NOT NULL,"
          " subscribed INTEGER NOT NULL DEFAULT 0, record BLOB NOT NULL)",
          "CREATE TABLE settings (key TEXT PRIMARY KEY NOT NULL, value)",
          "CREATE TABLE sync_history (id INTEGER PRIMARY KEY AUTOINCREMENT, calendar_uid TEXT NOT NULL "
          "DEFAULT '',"
          " time INTEGER NOT NULL, kind TEXT NOT NULL)",
          "INSERT INTO calendars (uid, sort_order, published_bonjour) VALUES ('cal-a', 7, 1)",
          "INSERT INTO sync_history (calendar_uid, time, kind) VALUES ('cal-a', 1000, 'itemAdded')",
          "PRAGMA user_version = 1"})
        poke(dbPath, QLatin1String(sql));
    makeCalendar(calendarsRoot, QStringLiteral("cal-a"), QStringLiteral("Alpha"));

    auto state = openState();
    EXPECT_FALSE(QFile::exists(dbPath + QStringLiteral(".corrupt")));
    EXPECT_EQ(peekOne(dbPath, QStringLiteral("PRAGMA user_version")).toInt(), kSchemaVersion);
    EXPECT_EQ(peek(dbPath, QStringLiteral("SELECT kind || '/' || detail FROM sync_history")),
              QVariantList{QStringLiteral("itemAdded/")});
    const QVariantMap alpha = state->calendarsPublishableViaBonjour().value(0).toMap();
    EXPECT_EQ(alpha.value(QStringLiteral("order")).toLongLong(), 7);
    EXPECT_TRUE(alpha.value(QStringLiteral("publishedToBonjour")).toBool());
}

TEST_F(StateDatabaseTest, ClearSyncHistoryEmptiesOnlyTheHistory)
{
    auto state = openState(); // making Home and Work is history
    state->setBonjourPublisherInfo({{QStringLiteral("bonjourName"), QStringLiteral("Studio")}});
    ASSERT_EQ(peekOne(dbPath, QStringLiteral("SELECT COUNT(*) FROM sync_history")).toInt(), 2);

    state->pauseForSyncHistoryReset();
    EXPECT_FALSE(state->isOpen());
    QString error;
    ASSERT_TRUE(clearSyncHistory(dbPath, &error)) << error.toStdString();
    posts.clear();
    ASSERT_TRUE(state->resumeAfterSyncHistoryReset());
    EXPECT_EQ(posts, QStringList{QStringLiteral("Nimbrel Calendars Changed")});
    EXPECT_EQ(peekOne(dbPath, QStringLiteral("SELECT COUNT(*) FROM sync_history")).toInt(), 0);
    EXPECT_EQ(state->calendarsPublishableViaBonjour().size(), 2);
    EXPECT_EQ(state->bonjourPublisherInfo().value(QStringLiteral("bonjourName")), QStringLiteral("Studio"));
}

TEST_F(StateDatabaseTest, ClearSyncHistoryOfMissingOrForeignFiles)
{
    QString error;
    EXPECT_TRUE(clearSyncHistory(dbPath, &error)); // nothing to clear
    EXPECT_FALSE(QFile::exists(dbPath));

    writeFile(dbPath, QByteArray(2048, 'z'));
    EXPECT_FALSE(clearSyncHistory(dbPath, &error));
    EXPECT_TRUE(error.contains(dbPath));

    const QString foreign = makeTempDir() + QStringLiteral("/other.db");
    poke(foreign, QStringLiteral("CREATE TABLE photos (id INTEGER)"));
    error.clear();
    EXPECT_FALSE(clearSyncHistory(foreign, &error));
    EXPECT_FALSE(error.isEmpty());
}

TEST_F(StateDatabaseTest, DiagnosticsCountButShowNoPasswords)
{
    makeCalendar(calendarsRoot, QStringLiteral("cal-a"), QStringLiteral("Alpha"));
    auto state = openState();
    state->publishOptions({{QStringLiteral("uid"), QStringLiteral("cal-a")},
                           {QStringLiteral("readPassword"), QStringLiteral("pw-read-4711")},
                           {QStringLiteral("writePassword"), QStringLiteral("pw-write-4711")}});
    state->publishCalendarViaBonjour(
        {{QStringLiteral("uid"), QStringLiteral("cal-a")}, {QStringLiteral("publishedToBonjour"), true}});
    state->bonjourIPServiceOptions({{QStringLiteral("remoteURL"), QStringLiteral("https://dav.example.org/")},
                                    {QStringLiteral("remotePassword"), QStringLiteral("pw-server-4711")}});
    state->googleServiceOptions({{QStringLiteral("remoteLogin"), QStringLiteral("me@example.org")},
                                 {QStringLiteral("remotePassword"), QStringLiteral("pw-google-4711")}});

    const QString text = state->diagnostics().join(QLatin1Char('\n'));
    EXPECT_FALSE(text.contains(QStringLiteral("4711"))) << text.toStdString();
    for (const char* expected :
         {"schema version 2", "Local calendars: 1 (published via Bonjour: 1, to Google: 0)",
          "Remote servers: 1", "Google account: yes", "Sync history rows: 1", "Port: automatic"})
        EXPECT_TRUE(text.contains(QLatin1String(expected))) << expected << "\n" << text.toStdString();
    EXPECT_TRUE(text.contains(dbPath));
}

} // namespace

// The state library on its own: the database file (private, versioned, migrated, damaged files kept
// aside, a newer file left alone), the sync history reset, and the per-calendar settings that outlive
// a vanished folder for a day.

#include "BackgroundTestSupport.h"
#include "state/CalendarSettings.h"
#include "state/SyncHistory.h"

#include <sys/stat.h>

using namespace nimbrel::background;
using namespace nimbrel::background::test;

namespace {

mode_t modeOf(const QString& path)
{
    struct stat st = {};
    ::stat(QFile::encodeName(path).constData(), &st);
    return st.st_mode & 0777;
}

class StateDatabaseTest : public ::testing::Test
{
protected:
    QString dir = makeTempDir();
    QString path = dir + s("/Nimbrel.nsql");
    StateDatabase db;
};

TEST_F(StateDatabaseTest, APrivateVersionedFileThatKeepsWhatWasWritten)
{
    ASSERT_TRUE(db.open(path));
    CalendarSettings settings(db);
    ASSERT_TRUE(settings.add({s("b"), s("a")}));
    ASSERT_TRUE(settings.setPublishOptions(s("a"), s("r"), s("w"), true));
    db.close();
    ASSERT_TRUE(db.open(path));
    const auto rows = settings.rows();
    EXPECT_EQ(rows.value(s("a")).readPassword, s("r"));
    EXPECT_LT(rows.value(s("b")).order, rows.value(s("a")).order); // in the order given
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(db.scalar(s("PRAGMA user_version")).toInt(), kSchemaVersion);
    EXPECT_EQ(db.scalar(s("PRAGMA journal_mode")).toString(), s("wal"));
}

TEST_F(StateDatabaseTest, EachUnusableFileIsKeptAsideAndAFreshOneMade)
{
    const struct
    {
        const char* name;
        std::function<void(const QString&)> make;
    } cases[] = {
        {"garbage", [](const QString& p) { writeFile(p, QByteArray(4096, 'x')); }},
        {"truncated header", [](const QString& p) { writeFile(p, QByteArray("SQLite format 3\0", 16)); }},
        {"another program's tables", [](const QString& p) { sql(p, "CREATE TABLE photos (id INTEGER)"); }},
        {"ours, a table missing",
         [](const QString& p) {
             sql(p, "CREATE TABLE calendars (uid TEXT)");
             sql(p, "PRAGMA user_version = 3");
         }},
        {"garbage again", [](const QString& p) { writeFile(p, QByteArray(2048, 'y')); }},
        {"and again", [](const QString& p) { writeFile(p, QByteArray(1024, 'z')); }},
        {"once more", [](const QString& p) { writeFile(p, QByteArray(512, 'w')); }},
    };
    int n = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        db.close();
        for (const char* suffix : {"", "-wal", "-shm"})
            QFile::remove(path + QLatin1String(suffix));
        c.make(path);
        const QByteArray original = readFile(path);
        StderrCapture log;
        ASSERT_TRUE(db.open(path)) << db.lastError().toStdString();
        const QString aside = path + s(".corrupt.%1").arg(++n);
        EXPECT_EQ(readFile(aside), original);
        EXPECT_TRUE(log.text().contains(s("moved unusable database"))) << qPrintable(log.text());
        EXPECT_TRUE(log.text().contains(aside));
        EXPECT_EQ(db.scalar(s("PRAGMA user_version")).toInt(), kSchemaVersion);
    }
    // A handful kept: the newest.
    EXPECT_EQ(QDir(dir).entryList({s("Nimbrel.nsql.corrupt.*")}).size(), StateDatabase::kKeptCorruptFiles);
    EXPECT_FALSE(QFile::exists(path + s(".corrupt.2")));
    EXPECT_TRUE(QFile::exists(path + s(".corrupt.3")));
}

TEST_F(StateDatabaseTest, AFileOfANewerVersionIsRefusedAndLeftAsItIs)
{
    sql(path, "CREATE TABLE calendars (uid TEXT, future TEXT)");
    sql(path, "PRAGMA journal_mode = DELETE");
    sql(path, "PRAGMA user_version = 99");
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther);
    const QByteArray original = readFile(path);
    StderrCapture log;
    EXPECT_FALSE(db.open(path));
    EXPECT_FALSE(db.isOpen());
    EXPECT_TRUE(db.lastError().contains(s("newer version of Nimbrel (schema 99")))
        << qPrintable(db.lastError());
    EXPECT_TRUE(log.text().contains(db.lastError()));
    EXPECT_EQ(readFile(path), original);
    EXPECT_EQ(modeOf(path), 0644u);
    EXPECT_TRUE(QDir(dir).entryList({s("*.corrupt*")}).isEmpty());
}

TEST_F(StateDatabaseTest, OlderVersionsAreMigratedKeepingTheirRows)
{
    for (const int version : {1, 2}) {
        SCOPED_TRACE(version);
        const QString file = makeTempDir() + s("/Nimbrel.nsql");
        for (const char* statement :
             {"CREATE TABLE calendars (uid TEXT PRIMARY KEY NOT NULL, sort_order INTEGER NOT NULL DEFAULT 0,"
              " published_bonjour INTEGER NOT NULL DEFAULT 0, published_google INTEGER NOT NULL DEFAULT 0,"
              " read_password TEXT NOT NULL DEFAULT '', write_password TEXT NOT NULL DEFAULT '',"
              " read_only INTEGER NOT NULL DEFAULT 0)",
              "CREATE TABLE sources (uid TEXT PRIMARY KEY NOT NULL, kind TEXT NOT NULL, settings BLOB NOT "
              "NULL)",
              "CREATE TABLE subscriptions (uid TEXT PRIMARY KEY NOT NULL, source_uid TEXT NOT NULL,"
              " subscribed INTEGER NOT NULL DEFAULT 0, record BLOB NOT NULL)",
              "CREATE TABLE settings (key TEXT PRIMARY KEY NOT NULL, value)",
              "CREATE TABLE sync_history (id INTEGER PRIMARY KEY AUTOINCREMENT,"
              " calendar_uid TEXT NOT NULL DEFAULT '', time INTEGER NOT NULL, kind TEXT NOT NULL)",
              "INSERT INTO calendars (uid, sort_order, published_bonjour) VALUES ('cal-a', 7, 1)",
              "INSERT INTO sync_history (calendar_uid, time, kind) VALUES ('cal-a', 1000, 'itemAdded')"})
            sql(file, statement);
        if (version == 2) {
            sql(file, "ALTER TABLE sync_history ADD COLUMN detail TEXT NOT NULL DEFAULT 'x'");
            sql(file, "CREATE INDEX sync_history_calendar ON sync_history (calendar_uid, time)");
        }
        sql(file, qPrintable(s("PRAGMA user_version = %1").arg(version)));
        StateDatabase old;
        ASSERT_TRUE(old.open(file)) << old.lastError().toStdString();
        EXPECT_FALSE(QFile::exists(file + s(".corrupt.1")));
        EXPECT_EQ(old.scalar(s("PRAGMA user_version")).toInt(), kSchemaVersion);
        EXPECT_EQ(old.scalar(s("SELECT kind || detail FROM sync_history")).toString(),
                  version == 1 ? s("itemAdded") : s("itemAddedx"));
        const CalendarSettingsRow row = CalendarSettings(old).rows().value(s("cal-a"));
        EXPECT_EQ(row.order, 7);
        EXPECT_TRUE(row.publishedToBonjour);
        EXPECT_TRUE(old.scalar(s("SELECT COUNT(*) FROM change_log")).isValid());
    }
}

TEST_F(StateDatabaseTest, ClearingTheSyncHistoryTouchesNothingElse)
{
    QString error;
    EXPECT_TRUE(clearSyncHistory(path, &error)); // nothing to clear, and nothing made
    EXPECT_FALSE(QFile::exists(path));
    ASSERT_TRUE(db.open(path));
    CalendarSettings(db).add({s("a")});
    recordHistory(db, {{s("a"), s("calendarAdded"), {}}}, 1000);
    db.close();
    ASSERT_TRUE(clearSyncHistory(path, &error)) << error.toStdString();
    EXPECT_EQ(sql(path, "SELECT COUNT(*) FROM sync_history").value(0).toInt(), 0);
    EXPECT_EQ(sql(path, "SELECT COUNT(*) FROM calendars").value(0).toInt(), 1);

    const QString garbage = dir + s("/garbage.nsql");
    writeFile(garbage, QByteArray(2048, 'z'));
    EXPECT_FALSE(clearSyncHistory(garbage, &error));
    EXPECT_TRUE(error.contains(garbage));
}

TEST_F(StateDatabaseTest, AVanishedCalendarKeepsItsSettingsForADay)
{
    ASSERT_TRUE(db.open(path));
    CalendarSettings settings(db);
    settings.add({s("a"), s("b")});
    settings.setPublishedToBonjour(s("a"), true);
    settings.setPublishOptions(s("a"), s("r"), s("w"), false);
    const qint64 gone = 1'000'000'000'000;
    settings.markVanished({s("a")}, gone);
    EXPECT_FALSE(settings.contains(s("a")));
    EXPECT_EQ(settings.rows().keys(), QStringList{s("b")});

    settings.purgeVanished(gone + CalendarSettings::kVanishedKeepMs);
    settings.add({s("a")}); // back within the day
    const CalendarSettingsRow back = settings.rows().value(s("a"));
    EXPECT_TRUE(back.publishedToBonjour);
    EXPECT_EQ(back.writePassword, s("w"));

    settings.markVanished({s("a")}, gone);
    settings.purgeVanished(gone + CalendarSettings::kVanishedKeepMs + 1);
    settings.add({s("a")}); // back too late: a new calendar
    EXPECT_FALSE(settings.rows().value(s("a")).publishedToBonjour);
    EXPECT_GT(settings.rows().value(s("a")).order, settings.rows().value(s("b")).order);
}

} // namespace

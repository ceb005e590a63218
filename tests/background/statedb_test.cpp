// The state library on its own: the database file (private, migrated, damaged files kept aside, a
// newer file left alone), the sync history reset, and the per-calendar settings that outlive a
// vanished folder for a day.

#include "BackgroundTestSupport.h"
#include "state/CalendarSettings.h"
#include "state/SyncHistory.h"

using namespace nimbrel::background;
using namespace nimbrel::background::test;

namespace {

class StateDatabaseTest : public ::testing::Test
{
protected:
    QString dir = makeTempDir();
    QString path = dir + s("/Nimbrel.nsql");
    StateDatabase db;
};

TEST_F(StateDatabaseTest, EachUnusableFileIsKeptAsideAndAFreshOneMade)
{
    const std::pair<const char*, std::function<void(const QString&)>> cases[] = {
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
    };
    int n = 0;
    for (const auto& [name, make] : cases) {
        SCOPED_TRACE(name);
        db.close();
        for (const char* suffix : {"", "-wal", "-shm"})
            QFile::remove(path + QLatin1String(suffix));
        make(path);
        const QByteArray original = readFile(path);
        StderrCapture log(13);
        ASSERT_TRUE(db.open(path)) << db.lastError().toStdString();
        const QString aside = path + s(".corrupt.%1").arg(++n);
        EXPECT_EQ(readFile(aside), original);
        EXPECT_TRUE(log.text().contains(s("moved unusable database ") + path + s(" to ") + aside));
        EXPECT_EQ(db.scalar(s("PRAGMA user_version")).toInt(), kSchemaVersion);
    }
    // A handful kept: the newest.
    EXPECT_EQ(QDir(dir).entryList({s("Nimbrel.nsql.corrupt.*")}).size(), StateDatabase::kKeptCorruptFiles);
    EXPECT_FALSE(QFile::exists(path + s(".corrupt.1")));
    EXPECT_TRUE(QFile::exists(path + s(".corrupt.2")));
}

TEST_F(StateDatabaseTest, AFileOfANewerVersionIsRefusedAndLeftAsItIs)
{
    sql(path, "CREATE TABLE calendars (uid TEXT, future TEXT)");
    sql(path, "PRAGMA journal_mode = DELETE");
    sql(path, "PRAGMA user_version = 99");
    QFile::setPermissions(path, QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther);
    const QByteArray original = readFile(path);
    StderrCapture log(13);
    EXPECT_FALSE(db.open(path));
    EXPECT_TRUE(db.lastError().contains(s("newer version of Nimbrel (schema 99")) &&
                log.text().contains(db.lastError()));
    EXPECT_EQ(readFile(path), original);
    EXPECT_TRUE(QFile::permissions(path) & QFile::ReadOther); // not made private
    EXPECT_TRUE(QDir(dir).entryList({s("*.corrupt*")}).isEmpty());
}

TEST_F(StateDatabaseTest, VersionOneIsMigratedKeepingItsRows)
{
    for (const char* statement :
         {"CREATE TABLE calendars (uid TEXT PRIMARY KEY NOT NULL, sort_order INTEGER NOT NULL DEFAULT 0,"
          " published_bonjour INTEGER NOT NULL DEFAULT 0, published_google INTEGER NOT NULL DEFAULT 0,"
          " read_password TEXT NOT NULL DEFAULT '', write_password TEXT NOT NULL DEFAULT '',"
          " read_only INTEGER NOT NULL DEFAULT 0)",
          "CREATE TABLE sources (uid TEXT)", "CREATE TABLE subscriptions (uid TEXT)",
          "CREATE TABLE settings (key TEXT)",
          "CREATE TABLE sync_history (id INTEGER PRIMARY KEY AUTOINCREMENT,"
          " calendar_uid TEXT NOT NULL DEFAULT '', time INTEGER NOT NULL, kind TEXT NOT NULL)",
          "INSERT INTO calendars (uid, sort_order, published_bonjour) VALUES ('cal-a', 7, 1)",
          "INSERT INTO sync_history (calendar_uid, time, kind) VALUES ('cal-a', 1000, 'itemAdded')",
          "PRAGMA user_version = 1"})
        sql(path, statement);
    ASSERT_TRUE(db.open(path)) << db.lastError().toStdString();
    EXPECT_EQ(db.scalar(s("PRAGMA user_version")).toInt(), kSchemaVersion);
    EXPECT_EQ(db.scalar(s("SELECT kind || detail FROM sync_history")).toString(), s("itemAdded"));
    const CalendarSettingsRow row = CalendarSettings(db).rows().value(s("cal-a"));
    EXPECT_TRUE(row.order == 7 && row.publishedToBonjour);
    EXPECT_TRUE(db.scalar(s("SELECT COUNT(*) FROM change_log")).isValid());
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
}

TEST_F(StateDatabaseTest, APrivateFileWhereAVanishedCalendarKeepsItsSettingsForADay)
{
    ASSERT_TRUE(db.open(path));
    CalendarSettings settings(db);
    settings.add({s("a"), s("b")});
    settings.setPublishedToBonjour(s("a"), true);
    settings.setPublishOptions(s("a"), s("r"), s("w"), false);
    db.close();
    ASSERT_TRUE(db.open(path));
    EXPECT_EQ(QFile::permissions(path) & 0x0077, 0); // nothing for the group and others
    EXPECT_EQ(db.scalar(s("PRAGMA journal_mode")).toString(), s("wal"));
    EXPECT_LT(settings.rows().value(s("a")).order, settings.rows().value(s("b")).order); // in the order given
    const qint64 gone = 1'000'000'000'000;
    settings.markVanished({s("a")}, gone);
    EXPECT_FALSE(settings.contains(s("a")) || settings.row(s("a")));
    EXPECT_EQ(settings.rows().keys(), QStringList{s("b")});
    settings.purgeVanished(gone + CalendarSettings::kVanishedKeepMs);
    settings.add({s("a")}); // back within the day
    const CalendarSettingsRow back = settings.row(s("a")).value_or(CalendarSettingsRow{});
    EXPECT_TRUE(back.publishedToBonjour);
    EXPECT_EQ(back.writePassword, s("w"));
    settings.markVanished({s("a")}, gone);
    settings.purgeVanished(gone + CalendarSettings::kVanishedKeepMs + 1);
    settings.add({s("a")}); // back too late: a new calendar
    EXPECT_FALSE(settings.rows().value(s("a")).publishedToBonjour);
    EXPECT_GT(settings.rows().value(s("a")).order, settings.rows().value(s("b")).order);
}

} // namespace

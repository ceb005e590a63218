// Changes from the panel: each is on disk before its one notification, bad input changes nothing
// (logged, still posted), and the answers have the shape the panel reads.

#include "StateTestSupport.h"
#include "logging/Log.h"

using namespace nimbrel::background;
using namespace nimbrel::background::test;

namespace {

const QString kPublishable = QStringLiteral("Nimbrel Bonjour Publishable Change");
const QString kBonjour = QStringLiteral("Nimbrel Bonjour Change");
const QString kGoogle = QStringLiteral("Nimbrel Google Change");
const QString kNamePublished = QStringLiteral("Nimbrel Bonjour Name Published");

QString s(const char* text)
{
    return QString::fromUtf8(text);
}

// Two local calendars, a server with one subscription, and a Google account with one, the last two
// written the way a sync would record them.
class StateChangesTest : public StateFixture
{
protected:
    std::unique_ptr<NimbrelState> state;

    void SetUp() override
    {
        makeCalendar(calendarsRoot, s("cal-a"), s("Alpha"), {}, s("#112233"));
        makeCalendar(calendarsRoot, s("cal-b"), s("Beta"));
        state = openState();
        poke(dbPath, s("INSERT INTO sources VALUES ('server-1', 'server', ?)"),
             {plistBlob({{s("title"), s("Office")}, {s("remoteURL"), s("https://dav.example.org/")}})});
        poke(dbPath, s("INSERT INTO sources VALUES ('google-1', 'google', ?)"),
             {plistBlob({{s("title"), s("Me")}, {s("remoteLogin"), s("me@example.org")}})});
        poke(dbPath, s("INSERT INTO subscriptions VALUES ('sub-1', 'server-1', 0, ?)"),
             {plistBlob({{s("title"), s("Team")}, {s("readableByAnyone"), true}})});
        poke(dbPath, s("INSERT INTO subscriptions VALUES ('sub-g', 'google-1', 1, ?)"),
             {plistBlob({{s("title"), s("Holidays")}})});
        poke(dbPath, s("UPDATE calendars SET published_google = 1 WHERE uid = 'cal-b'"));
        posts.clear();
    }

    QVariantList everything() const
    {
        return {state->calendarsPublishableViaBonjour(), state->sourceListOfBonjourCalendars(),
                state->calendarsPublishableToGoogle(), state->sourceListOfGoogleCalendars(),
                state->bonjourPublisherInfo()};
    }
};

using Operation = void (NimbrelState::*)(const QVariantMap&);

struct GoodCase
{
    const char* name;
    Operation operation;
    QVariantMap input;
    QString notification;
    QString check; // SQL whose one value, read from another connection inside the poster, must be...
    QVariant expected;
};

TEST_F(StateChangesTest, EachChangeIsOnDiskBeforeItsOneNotification)
{
    const QString longest = QString(21, QChar(0x20AC)); // 21 x 3 bytes: exactly the 63 allowed
    const GoodCase cases[] = {
        {"publish via Bonjour",
         &NimbrelState::publishCalendarViaBonjour,
         {{s("uid"), s("cal-a")}, {s("publishedToBonjour"), true}},
         kPublishable,
         s("SELECT published_bonjour FROM calendars WHERE uid = 'cal-a'"),
         1},
        {"publish options",
         &NimbrelState::publishOptions,
         {{s("uid"), s("cal-a")},
          {s("readPassword"), s("r")},
          {s("writePassword"), s("w")},
          {s("readOnly"), true}},
         kPublishable,
         s("SELECT read_password || write_password || read_only FROM calendars WHERE uid = 'cal-a'"),
         s("rw1")},
        {"publish to Google",
         &NimbrelState::publishCalendarToGoogle,
         {{s("uid"), s("cal-a")}, {s("publishedToGoogle"), qint64(1)}},
         kGoogle,
         s("SELECT published_google FROM calendars WHERE uid = 'cal-a'"),
         1},
        {"subscribe",
         &NimbrelState::subscribeTo,
         {{s("uid"), s("sub-1")}, {s("subscribedTo"), true}},
         kBonjour,
         s("SELECT subscribed FROM subscriptions WHERE uid = 'sub-1'"),
         1},
        {"subscribe options",
         &NimbrelState::subscribeOptions,
         {{s("uid"), s("sub-1")}, {s("subscribePassword"), s("secret")}, {s("filterToDos"), true}},
         kBonjour,
         s("SELECT instr(record, 'filterToDos') > 0 AND instr(record, 'Team') > 0 FROM subscriptions "
           "WHERE uid = 'sub-1'"),
         1},
        {"add a server",
         &NimbrelState::bonjourIPServiceOptions,
         {{s("uid"), s("unknown")}, {s("remoteURL"), s("https://cal.example.com/x")}},
         kBonjour,
         s("SELECT COUNT(*) FROM sources WHERE kind = 'server' AND uid != 'unknown' "
           "AND (uid = 'server-1' OR instr(settings, 'cal.example.com') > 0)"),
         2},
        {"edit a server",
         &NimbrelState::bonjourIPServiceOptions,
         {{s("uid"), s("server-1")}, {s("title"), s("Renamed")}},
         kBonjour,
         s("SELECT instr(settings, 'Renamed') > 0 AND instr(settings, 'dav.example.org') > 0 FROM sources "
           "WHERE uid = 'server-1'"),
         1},
        {"disconnect a server",
         &NimbrelState::disconnectBonjourIPService,
         {{s("uid"), s("server-1")}},
         kBonjour,
         s("SELECT (SELECT COUNT(*) FROM sources WHERE uid = 'server-1') + "
           "(SELECT COUNT(*) FROM subscriptions WHERE source_uid = 'server-1')"),
         0},
        {"Google settings",
         &NimbrelState::googleServiceOptions,
         {{s("remoteLogin"), s("you@example.org")}, {s("newGoogleService"), true}, {s("syncInterval"), 3}},
         kGoogle,
         s("SELECT instr(settings, 'you@example.org') > 0 AND instr(settings, 'newGoogleService') = 0 "
           "FROM sources WHERE uid = 'google-1'"),
         1},
        {"disconnect Google",
         &NimbrelState::disconnectGoogleService,
         {{s("uid"), s("google-1")}},
         kGoogle,
         s("SELECT (SELECT COUNT(*) FROM sources WHERE kind = 'google') + "
           "(SELECT COUNT(*) FROM subscriptions WHERE source_uid = 'google-1') + "
           "(SELECT COUNT(*) FROM calendars WHERE published_google != 0)"),
         0},
        {"Bonjour name and port",
         &NimbrelState::setBonjourPublisherInfo,
         {{s("bonjourName"), s("Studio")}, {s("portNumber"), 65535}},
         kNamePublished,
         s("SELECT group_concat(value, '/') FROM (SELECT value FROM settings ORDER BY key)"),
         s("Studio/65535")},
        {"longest Bonjour name, automatic port",
         &NimbrelState::setBonjourPublisherInfo,
         {{s("bonjourName"), longest}, {s("portNumber"), 0}},
         kNamePublished,
         s("SELECT value FROM settings WHERE key = 'bonjourName'"),
         longest},
    };
    for (const GoodCase& c : cases) {
        SCOPED_TRACE(c.name);
        state.reset();
        for (const char* suffix : {"", "-wal", "-shm"})
            QFile::remove(dbPath + QLatin1String(suffix));
        SetUp();
        QVariantList seen;
        onPost = [&](const QString&) { seen << peekOne(dbPath, c.check); };
        StderrCapture log;
        nimbrel::gLogLevel = 13; // only trouble is written
        (state.get()->*c.operation)(c.input);
        nimbrel::gLogLevel = 2;
        onPost = {};
        EXPECT_EQ(posts, QStringList{c.notification});
        ASSERT_EQ(seen.size(), 1);
        EXPECT_EQ(seen.first().toString(), c.expected.toString());
        EXPECT_TRUE(log.text().isEmpty()) << log.text().toStdString();
    }
}

struct BadCase
{
    const char* name;
    Operation operation;
    QVariantMap input;
    QString notification;
    QString logged;
};

TEST_F(StateChangesTest, BadInputIsLoggedChangesNothingAndStillPosts)
{
    const QVariantMap calA{{s("uid"), s("cal-a")}};
    auto with = [](QVariantMap map, const QString& key, const QVariant& value) {
        map.insert(key, value);
        return map;
    };
    const BadCase cases[] = {
        {"no uid",
         &NimbrelState::publishCalendarViaBonjour,
         {{s("publishedToBonjour"), true}},
         kPublishable,
         s("\"uid\" is missing")},
        {"uid not a string",
         &NimbrelState::publishCalendarViaBonjour,
         {{s("uid"), 5}},
         kPublishable,
         s("\"uid\" is not a string")},
        {"unknown calendar",
         &NimbrelState::publishCalendarViaBonjour,
         {{s("uid"), s("nope")}, {s("publishedToBonjour"), true}},
         kPublishable,
         s("no local calendar has the uid nope")},
        {"flag not a boolean", &NimbrelState::publishCalendarViaBonjour,
         with(calA, s("publishedToBonjour"), s("yes")), kPublishable,
         s("\"publishedToBonjour\" is not a boolean")},
        {"password not a string", &NimbrelState::publishOptions,
         with(with(calA, s("readPassword"), s("SECRET-R")), s("writePassword"), 7), kPublishable,
         s("\"writePassword\" is not a string")},
        {"Google flag for a subscription",
         &NimbrelState::publishCalendarToGoogle,
         {{s("uid"), s("sub-g")}, {s("publishedToGoogle"), true}},
         kGoogle,
         s("no local calendar has the uid sub-g")},
        {"subscribe to a local calendar", &NimbrelState::subscribeTo, with(calA, s("subscribedTo"), true),
         kBonjour, s("no subscription has the uid cal-a")},
        {"filter not a boolean",
         &NimbrelState::subscribeOptions,
         {{s("uid"), s("sub-1")}, {s("filterToDos"), s("x")}},
         kBonjour,
         s("\"filterToDos\" is not a boolean")},
        {"server without URL",
         &NimbrelState::bonjourIPServiceOptions,
         {{s("title"), s("X")}},
         kBonjour,
         s("\"remoteURL\" is missing or empty")},
        {"server URL not a string",
         &NimbrelState::bonjourIPServiceOptions,
         {{s("remoteURL"), 3}},
         kBonjour,
         s("\"remoteURL\" is not a string")},
        {"server uid of the Google account",
         &NimbrelState::bonjourIPServiceOptions,
         {{s("uid"), s("google-1")}, {s("remoteURL"), s("https://x.example/")}},
         kBonjour,
         s("is the Google account's")},
        {"disconnect the Google account as a server",
         &NimbrelState::disconnectBonjourIPService,
         {{s("uid"), s("google-1")}},
         kBonjour,
         s("no remote server has the uid google-1")},
        {"disconnect without uid",
         &NimbrelState::disconnectBonjourIPService,
         {},
         kBonjour,
         s("\"uid\" is missing")},
        {"sync options not a dictionary",
         &NimbrelState::googleServiceOptions,
         {{s("syncOptions"), s("daily")}},
         kGoogle,
         s("\"syncOptions\" is not a dictionary")},
        {"disconnect another account",
         &NimbrelState::disconnectGoogleService,
         {{s("uid"), s("server-1")}},
         kGoogle,
         s("is not the Google account's")},
        {"no Bonjour name",
         &NimbrelState::setBonjourPublisherInfo,
         {{s("portNumber"), 4990}},
         kNamePublished,
         s("\"bonjourName\" is missing")},
        {"empty Bonjour name",
         &NimbrelState::setBonjourPublisherInfo,
         {{s("bonjourName"), s("  ")}},
         kNamePublished,
         s("the Bonjour name is empty")},
        {"64-byte name of 32 characters",
         &NimbrelState::setBonjourPublisherInfo,
         {{s("bonjourName"), QString(32, QChar(0xE9))}},
         kNamePublished,
         s("longer than 63 bytes")},
        {"port too high",
         &NimbrelState::setBonjourPublisherInfo,
         {{s("bonjourName"), s("ok")}, {s("portNumber"), 65536}},
         kNamePublished,
         s("outside 1-65535")},
        {"negative port",
         &NimbrelState::setBonjourPublisherInfo,
         {{s("bonjourName"), s("ok")}, {s("portNumber"), -1}},
         kNamePublished,
         s("outside 1-65535")},
        {"port not a number",
         &NimbrelState::setBonjourPublisherInfo,
         {{s("bonjourName"), s("ok")}, {s("portNumber"), s("80")}},
         kNamePublished,
         s("\"portNumber\" is not an integer")},
    };
    const QVariantList before = everything();
    for (const BadCase& c : cases) {
        SCOPED_TRACE(c.name);
        posts.clear();
        StderrCapture log;
        nimbrel::gLogLevel = 13; // what is written is trouble
        (state.get()->*c.operation)(c.input);
        nimbrel::gLogLevel = 2;
        EXPECT_EQ(posts, QStringList{c.notification});
        EXPECT_TRUE(log.text().contains(c.logged)) << log.text().toStdString();
        EXPECT_FALSE(log.text().contains(s("SECRET"))) << log.text().toStdString();
        EXPECT_EQ(everything(), before);
    }
}

TEST_F(StateChangesTest, PublishedCalendarsCarryWhatThePanelReads)
{
    state->publishOptions({{s("uid"), s("cal-b")}, {s("readPassword"), s("r")}});
    const QVariantList list = state->calendarsPublishableViaBonjour();
    ASSERT_EQ(list.size(), 2);
    EXPECT_EQ(list, state->calendarsPublishableToGoogle());
    const QVariantMap alpha = list[0].toMap();
    const QVariantMap beta = list[1].toMap();
    EXPECT_EQ(alpha.value(s("title")), s("Alpha"));
    EXPECT_EQ(alpha.value(s("color")), s("#112233"));
    EXPECT_FALSE(beta.contains(s("color")));
    EXPECT_LT(alpha.value(s("order")).toLongLong(), beta.value(s("order")).toLongLong());
    EXPECT_TRUE(beta.value(s("publishedToGoogle")).toBool());
    EXPECT_EQ(beta.value(s("readPassword")), s("r"));
    for (const QVariant& row : list) {
        for (const char* k : {"uid", "title", "order", "publishedToBonjour", "publishedToGoogle",
                              "readPassword", "writePassword", "readOnly", "subscribable"})
            EXPECT_TRUE(row.toMap().contains(QLatin1String(k))) << k;
        EXPECT_TRUE(row.toMap().value(s("subscribable")).toBool());
    }
}

TEST_F(StateChangesTest, SourcesAreStoredRowsOnly)
{
    const QVariantList servers = state->sourceListOfBonjourCalendars();
    ASSERT_EQ(servers.size(), 1);
    const QVariantMap server = servers[0].toMap();
    EXPECT_TRUE(server.value(s("source")).toBool());
    EXPECT_TRUE(server.value(s("offline")).toBool());
    EXPECT_FALSE(server.contains(s("syncTime")));
    EXPECT_EQ(server.value(s("uid")), s("server-1"));
    EXPECT_EQ(server.value(s("remoteURL")), s("https://dav.example.org/"));
    const QVariantList calendars = server.value(s("calendars")).toList();
    ASSERT_EQ(calendars.size(), 1);
    EXPECT_EQ(calendars[0].toMap().value(s("uid")), s("sub-1"));
    EXPECT_FALSE(calendars[0].toMap().value(s("subscribedTo")).toBool());
    EXPECT_FALSE(server.value(s("hasSubscriptions")).toBool());

    const QVariantList google = state->sourceListOfGoogleCalendars();
    ASSERT_EQ(google.size(), 1);
    const QVariantMap account = google[0].toMap();
    EXPECT_TRUE(account.value(s("hasPublishing")).toBool());    // cal-b
    EXPECT_TRUE(account.value(s("hasSubscriptions")).toBool()); // sub-g
    EXPECT_EQ(account.value(s("remoteLogin")), s("me@example.org"));
    EXPECT_FALSE(account.contains(s("remoteURL")));

    state->disconnectGoogleService({});
    EXPECT_TRUE(state->sourceListOfGoogleCalendars().isEmpty());
    posts.clear();
    state->publishCalendarToGoogle({{s("uid"), s("cal-a")}, {s("publishedToGoogle"), true}});
    EXPECT_EQ(posts, QStringList{kGoogle});
    EXPECT_FALSE(state->calendarsPublishableToGoogle()[0].toMap().value(s("publishedToGoogle")).toBool());

    state->googleServiceOptions({{s("remoteLogin"), s("new@example.org")}, {s("newGoogleService"), true}});
    const QVariantMap fresh = state->sourceListOfGoogleCalendars().value(0).toMap();
    EXPECT_EQ(fresh.value(s("title")), s("new@example.org"));
    EXPECT_FALSE(fresh.contains(s("newGoogleService")));
    EXPECT_FALSE(fresh.value(s("hasPublishing")).toBool());
    EXPECT_TRUE(fresh.value(s("calendars")).toList().isEmpty());
}

TEST_F(StateChangesTest, BonjourPublisherDefaultsToHostNameAndAutomaticPort)
{
    const QVariantMap info = state->bonjourPublisherInfo();
    EXPECT_FALSE(info.value(s("bonjourName")).toString().isEmpty());
    EXPECT_FALSE(info.contains(s("portNumber")));
    state->setBonjourPublisherInfo({{s("bonjourName"), s("Studio")}, {s("portNumber"), 4990}});
    EXPECT_EQ(state->bonjourPublisherInfo().value(s("portNumber")).toLongLong(), 4990);
    state->setBonjourPublisherInfo({{s("bonjourName"), s("Studio")}, {s("portNumber"), 0}});
    EXPECT_FALSE(state->bonjourPublisherInfo().contains(s("portNumber")));
}

TEST_F(StateChangesTest, ChangesWhileClosedAreRefusedButPosted)
{
    state->pauseForSyncHistoryReset();
    posts.clear();
    StderrCapture log;
    state->publishCalendarViaBonjour({{s("uid"), s("cal-a")}, {s("publishedToBonjour"), true}});
    EXPECT_EQ(posts, QStringList{kPublishable});
    EXPECT_TRUE(log.text().contains(s("the database is not open")));
    EXPECT_TRUE(state->calendarsPublishableViaBonjour().isEmpty());
    ASSERT_TRUE(state->resumeAfterSyncHistoryReset());
    EXPECT_FALSE(state->calendarsPublishableViaBonjour()[0].toMap().value(s("publishedToBonjour")).toBool());
}

} // namespace

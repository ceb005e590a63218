// Changes from the panel: each is on disk before its one notification, bad input changes nothing
// (logged, still posted), and the answers have the shape the panel reads.

#include "StateTestSupport.h"
#include "platform/PlistCodec.h"

using namespace nimbrel::background;
using namespace nimbrel::background::test;

namespace {

const QString kPublishable = s("Nimbrel Bonjour Publishable Change");
const QString kBonjour = s("Nimbrel Bonjour Change");
const QString kGoogle = s("Nimbrel Google Change");
const QString kNamePublished = s("Nimbrel Bonjour Name Published");

QByteArray blob(const QVariantMap& map)
{
    return nimbrel::plist::write(map).value_or(QByteArray());
}

// Two local calendars, a server with one subscription, and a Google account with one, the last two
// written the way a sync would record them.
class StateChangesTest : public StateFixture
{
protected:
    std::unique_ptr<NimbrelState> state;

    void SetUp() override
    {
        makeCalendar(calendarsRoot, "cal-a", "Alpha", {}, "#112233");
        makeCalendar(calendarsRoot, "cal-b", "Beta");
        state = openState();
        state->calendarsPublishableViaBonjour(); // the first look at the folders is complete
        sql(dbPath, "INSERT INTO sources VALUES ('server-1', 'server', ?)",
            {blob(m("title", "Office", "remoteURL", "https://dav.example.org/"))});
        sql(dbPath, "INSERT INTO sources VALUES ('google-1', 'google', ?)",
            {blob(m("title", "Me", "remoteLogin", "me@example.org"))});
        sql(dbPath, "INSERT INTO subscriptions VALUES ('sub-1', 'server-1', 0, ?)",
            {blob(m("title", "Team", "readableByAnyone", true))});
        sql(dbPath, "INSERT INTO subscriptions VALUES ('sub-g', 'google-1', 1, ?)",
            {blob(m("title", "Holidays"))});
        sql(dbPath, "UPDATE calendars SET published_google = 1 WHERE uid = 'cal-b'");
        posts.clear();
    }
};

using Operation = void (NimbrelState::*)(const QVariantMap&);

TEST_F(StateChangesTest, EachChangeIsOnDiskBeforeItsOneNotification)
{
    const QString longest = QString(21, QChar(0x20AC)); // 21 x 3 bytes: exactly the 63 allowed
    const struct
    {
        const char* name;
        Operation operation;
        QVariantMap input;
        QString notification;
        const char* check; // read from another connection inside the poster
        QVariant expected;
    } cases[] = {
        {"publish via Bonjour", &NimbrelState::publishCalendarViaBonjour,
         m("uid", "cal-a", "publishedToBonjour", true), kPublishable,
         "SELECT published_bonjour FROM calendars WHERE uid = 'cal-a'", 1},
        {"publish options", &NimbrelState::publishOptions,
         m("uid", "cal-a", "readPassword", "r", "writePassword", "w", "readOnly", true), kPublishable,
         "SELECT read_password || write_password || read_only FROM calendars WHERE uid = 'cal-a'", s("rw1")},
        {"publish to Google", &NimbrelState::publishCalendarToGoogle,
         m("uid", "cal-a", "publishedToGoogle", qint64(1)), kGoogle,
         "SELECT published_google FROM calendars WHERE uid = 'cal-a'", 1},
        {"subscribe", &NimbrelState::subscribeTo, m("uid", "sub-1", "subscribedTo", true), kBonjour,
         "SELECT subscribed FROM subscriptions WHERE uid = 'sub-1'", 1},
        {"subscribe options", &NimbrelState::subscribeOptions,
         m("uid", "sub-1", "subscribePassword", "secret", "filterToDos", true), kBonjour,
         "SELECT instr(record, 'filterToDos') > 0 AND instr(record, 'Team') > 0 FROM subscriptions "
         "WHERE uid = 'sub-1'",
         1},
        {"add a server", &NimbrelState::bonjourIPServiceOptions,
         m("uid", "unknown", "remoteURL", "https://cal.example.com/x"), kBonjour,
         "SELECT COUNT(*) FROM sources WHERE kind = 'server' AND uid != 'unknown' "
         "AND (uid = 'server-1' OR instr(settings, 'cal.example.com') > 0)",
         2},
        {"edit a server", &NimbrelState::bonjourIPServiceOptions, m("uid", "server-1", "title", "Renamed"),
         kBonjour,
         "SELECT instr(settings, 'Renamed') > 0 AND instr(settings, 'dav.example.org') > 0 FROM sources "
         "WHERE uid = 'server-1'",
         1},
        {"disconnect a server", &NimbrelState::disconnectBonjourIPService, m("uid", "server-1"), kBonjour,
         "SELECT (SELECT COUNT(*) FROM sources WHERE uid = 'server-1') + "
         "(SELECT COUNT(*) FROM subscriptions WHERE source_uid = 'server-1')",
         0},
        {"Google settings", &NimbrelState::googleServiceOptions,
         m("remoteLogin", "you@example.org", "newGoogleService", true, "syncInterval", 3), kGoogle,
         "SELECT instr(settings, 'you@example.org') > 0 AND instr(settings, 'newGoogleService') = 0 "
         "FROM sources WHERE uid = 'google-1'",
         1},
        {"disconnect Google", &NimbrelState::disconnectGoogleService, m("uid", "google-1"), kGoogle,
         "SELECT (SELECT COUNT(*) FROM sources WHERE kind = 'google') + "
         "(SELECT COUNT(*) FROM subscriptions WHERE source_uid = 'google-1') + "
         "(SELECT COUNT(*) FROM calendars WHERE published_google != 0)",
         0},
        {"Bonjour name and port", &NimbrelState::setBonjourPublisherInfo,
         m("bonjourName", "Studio", "portNumber", 65535), kNamePublished,
         "SELECT group_concat(value, '/') FROM (SELECT value FROM settings ORDER BY key)", s("Studio/65535")},
        {"longest Bonjour name, automatic port", &NimbrelState::setBonjourPublisherInfo,
         m("bonjourName", longest, "portNumber", 0), kNamePublished,
         "SELECT value FROM settings WHERE key = 'bonjourName'", longest},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        state.reset();
        for (const char* suffix : {"", "-wal", "-shm"})
            QFile::remove(dbPath + QLatin1String(suffix));
        SetUp();
        QVariantList seen;
        onPost = [&](const QString&) { seen << sql1(dbPath, c.check); };
        {
            StderrCapture log(13); // only trouble is written
            (state.get()->*c.operation)(c.input);
            EXPECT_TRUE(log.text().isEmpty()) << log.text().toStdString();
        }
        onPost = {};
        EXPECT_EQ(posts, QStringList{c.notification});
        ASSERT_EQ(seen.size(), 1);
        EXPECT_EQ(seen.first().toString(), c.expected.toString());
    }
}

TEST_F(StateChangesTest, BadInputIsLoggedChangesNothingAndStillPosts)
{
    const struct
    {
        const char* name;
        Operation operation;
        QVariantMap input;
        QString notification;
        const char* logged;
    } cases[] = {
        {"no uid", &NimbrelState::publishCalendarViaBonjour, m("publishedToBonjour", true), kPublishable,
         "\"uid\" is missing"},
        {"uid not a string", &NimbrelState::publishCalendarViaBonjour, m("uid", 5), kPublishable,
         "\"uid\" is not a string"},
        {"unknown calendar", &NimbrelState::publishCalendarViaBonjour,
         m("uid", "nope", "publishedToBonjour", true), kPublishable, "no local calendar has the uid nope"},
        {"flag not a boolean", &NimbrelState::publishCalendarViaBonjour,
         m("uid", "cal-a", "publishedToBonjour", "yes"), kPublishable,
         "\"publishedToBonjour\" is not a boolean"},
        {"password not a string", &NimbrelState::publishOptions,
         m("uid", "cal-a", "readPassword", "SECRET-R", "writePassword", 7), kPublishable,
         "\"writePassword\" is not a string"},
        {"Google flag for a subscription", &NimbrelState::publishCalendarToGoogle,
         m("uid", "sub-g", "publishedToGoogle", true), kGoogle, "no local calendar has the uid sub-g"},
        {"subscribe to a local calendar", &NimbrelState::subscribeTo, m("uid", "cal-a", "subscribedTo", true),
         kBonjour, "no subscription has the uid cal-a"},
        {"server without URL", &NimbrelState::bonjourIPServiceOptions, m("title", "X"), kBonjour,
         "\"remoteURL\" is missing or empty"},
        {"server uid of the Google account", &NimbrelState::bonjourIPServiceOptions,
         m("uid", "google-1", "remoteURL", "https://x.example/"), kBonjour, "is the Google account's"},
        {"disconnect the Google account as a server", &NimbrelState::disconnectBonjourIPService,
         m("uid", "google-1"), kBonjour, "no remote server has the uid google-1"},
        {"sync options not a dictionary", &NimbrelState::googleServiceOptions, m("syncOptions", "daily"),
         kGoogle, "\"syncOptions\" is not a dictionary"},
        {"disconnect another account", &NimbrelState::disconnectGoogleService, m("uid", "server-1"), kGoogle,
         "is not the Google account's"},
        {"no Bonjour name", &NimbrelState::setBonjourPublisherInfo, m("portNumber", 4990), kNamePublished,
         "\"bonjourName\" is missing"},
        {"empty Bonjour name", &NimbrelState::setBonjourPublisherInfo, m("bonjourName", "  "), kNamePublished,
         "the Bonjour name is empty"},
        {"64-byte name of 32 characters", &NimbrelState::setBonjourPublisherInfo,
         m("bonjourName", QString(32, QChar(0xE9))), kNamePublished, "longer than 63 bytes"},
        {"port too high", &NimbrelState::setBonjourPublisherInfo, m("bonjourName", "ok", "portNumber", 65536),
         kNamePublished, "outside 1-65535"},
        {"negative port", &NimbrelState::setBonjourPublisherInfo, m("bonjourName", "ok", "portNumber", -1),
         kNamePublished, "outside 1-65535"},
        {"port not a number", &NimbrelState::setBonjourPublisherInfo,
         m("bonjourName", "ok", "portNumber", "80"), kNamePublished, "\"portNumber\" is not an integer"},
    };
    const QVariantList before = answers(*state);
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        posts.clear();
        StderrCapture log(13); // what is written is trouble
        (state.get()->*c.operation)(c.input);
        EXPECT_EQ(posts, QStringList{c.notification});
        EXPECT_TRUE(log.text().contains(s(c.logged))) << log.text().toStdString();
        EXPECT_FALSE(log.text().contains(s("SECRET"))) << log.text().toStdString();
        EXPECT_EQ(answers(*state), before);
    }
}

TEST_F(StateChangesTest, AnswersCarryWhatThePanelReads)
{
    state->publishOptions(m("uid", "cal-b", "readPassword", "r"));
    const QVariantList list = state->calendarsPublishableViaBonjour();
    ASSERT_EQ(column(list, "title"), (QStringList{s("Alpha"), s("Beta")}));
    EXPECT_EQ(list, state->calendarsPublishableToGoogle());
    const QVariantMap alpha = list[0].toMap(), beta = list[1].toMap();
    EXPECT_EQ(alpha.value(s("color")), s("#112233"));
    EXPECT_FALSE(beta.contains(s("color")));
    EXPECT_LT(alpha.value(s("order")).toLongLong(), beta.value(s("order")).toLongLong());
    EXPECT_TRUE(beta.value(s("publishedToGoogle")).toBool());
    EXPECT_EQ(beta.value(s("readPassword")), s("r"));
    for (const char* k :
         {"uid", "publishedToBonjour", "readPassword", "writePassword", "readOnly", "subscribable"})
        EXPECT_TRUE(alpha.contains(s(k))) << k;
    EXPECT_TRUE(alpha.value(s("subscribable")).toBool());

    // Sources are the stored rows only: no sync has run.
    const QVariantMap server = state->sourceListOfBonjourCalendars().value(0).toMap();
    EXPECT_TRUE(server.value(s("source")).toBool());
    EXPECT_TRUE(server.value(s("offline")).toBool());
    EXPECT_FALSE(server.contains(s("syncTime")));
    EXPECT_FALSE(server.value(s("hasSubscriptions")).toBool());
    EXPECT_EQ(server.value(s("remoteURL")), s("https://dav.example.org/"));
    EXPECT_EQ(column(server.value(s("calendars")).toList(), "uid"), QStringList{s("sub-1")});
    const QVariantMap account = state->sourceListOfGoogleCalendars().value(0).toMap();
    EXPECT_TRUE(account.value(s("hasPublishing")).toBool());    // cal-b
    EXPECT_TRUE(account.value(s("hasSubscriptions")).toBool()); // sub-g
    EXPECT_EQ(account.value(s("remoteLogin")), s("me@example.org"));
    EXPECT_FALSE(account.contains(s("remoteURL")));

    // Without an account nothing is published to Google; a new account starts empty.
    state->disconnectGoogleService({});
    EXPECT_TRUE(state->sourceListOfGoogleCalendars().isEmpty());
    posts.clear();
    state->publishCalendarToGoogle(m("uid", "cal-a", "publishedToGoogle", true));
    EXPECT_EQ(posts, QStringList{kGoogle});
    EXPECT_FALSE(state->calendarsPublishableToGoogle()[0].toMap().value(s("publishedToGoogle")).toBool());
    state->googleServiceOptions(m("remoteLogin", "new@example.org", "newGoogleService", true));
    const QVariantMap fresh = state->sourceListOfGoogleCalendars().value(0).toMap();
    EXPECT_EQ(fresh.value(s("title")), s("new@example.org"));
    EXPECT_FALSE(fresh.contains(s("newGoogleService")));
    EXPECT_FALSE(fresh.value(s("hasPublishing")).toBool());
    EXPECT_TRUE(fresh.value(s("calendars")).toList().isEmpty());

    // The Bonjour name defaults to the host name; port 0 is automatic and not reported.
    EXPECT_FALSE(state->bonjourPublisherInfo().value(s("bonjourName")).toString().isEmpty());
    EXPECT_FALSE(state->bonjourPublisherInfo().contains(s("portNumber")));
    state->setBonjourPublisherInfo(m("bonjourName", "Studio", "portNumber", 4990));
    EXPECT_EQ(state->bonjourPublisherInfo().value(s("portNumber")).toLongLong(), 4990);
    state->setBonjourPublisherInfo(m("bonjourName", "Studio", "portNumber", 0));
    EXPECT_FALSE(state->bonjourPublisherInfo().contains(s("portNumber")));
}

TEST_F(StateChangesTest, ChangesWhileClosedAreRefusedButPosted)
{
    state->pauseForSyncHistoryReset();
    posts.clear();
    StderrCapture log;
    state->publishCalendarViaBonjour(m("uid", "cal-a", "publishedToBonjour", true));
    EXPECT_EQ(posts, QStringList{kPublishable});
    EXPECT_TRUE(log.text().contains(s("the database is not open")));
    EXPECT_TRUE(state->calendarsPublishableViaBonjour().isEmpty());
    ASSERT_TRUE(state->resumeAfterSyncHistoryReset());
    EXPECT_FALSE(state->calendarsPublishableViaBonjour()[0].toMap().value(s("publishedToBonjour")).toBool());
}

} // namespace

// The background application in-process, as the panel sees it over the bus: every change on disk
// before its one notice, bad input, the answers' shape, the calendars' settings across a vanished
// folder, the reset, and its life (a second instance on the bus or on the data folder, shutdown,
// SIGTERM, a bus that goes away, a corrupt settings file).
//
// The application serves from the test thread, as from its main thread in the program; blocking
// calls go out from a worker thread (onClient) while the test thread keeps the event loop turning.

#include "BackgroundApp.h"
#include "BackgroundTestSupport.h"
#include "NimbrelState.h"
#include "UpdateCheck.h"
#include "link/AppProtocolProxy.h"
#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"
#include "protocol/NotificationBus.h"
#include "protocol/Notifications.h"

#include <QDBusConnectionInterface>
#include <atomic>
#include <csignal>
#include <thread>

using namespace nimbrel;
using namespace nimbrel::background;
using namespace nimbrel::background::test;
using nimbrel::test::waitUntil;

namespace {

const QString kPublishable = notification::bonjourPublishableChange;
const QString kBonjour = notification::bonjourChange;
const QString kGoogle = notification::googleChange;
const QString kNamePublished = notification::bonjourNamePublished;
const QString kCalendarsChanged = notification::calendarsChanged;

QByteArray blob(const QVariantMap& map)
{
    return plist::write(map).value_or(QByteArray());
}

class ServiceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // Nothing reaches the network: the feed is a local file, and automatic checks are off.
        writeFile(m_folder + s("/appcast.xml"), "<rss version=\"2.0\"><channel/></rss>");
        qputenv("NIMBREL_UPDATE_FEED", (m_folder + s("/appcast.xml")).toUtf8());
        SettingsStore(m_options.settingsPath).setValue(s("checkForUpdateInterval"), kAutoCheckOffInterval);
        m_observer = std::make_unique<NotificationBus>(m_client);
        for (const QLatin1StringView name : notification::all)
            m_observer->addObserver(name, [this, name] { m_posted << QString(name); });
    }

    void TearDown() override
    {
        m_app.reset();
        m_observer.reset();
        qunsetenv("NIMBREL_UPDATE_FEED");
    }

    BackgroundOptions optionsIn(const QString& folder,
                                const QDBusConnection& bus = QDBusConnection::sessionBus())
    {
        BackgroundOptions options;
        options.connection = bus;
        options.appBundlePath = nimbrel::test::paneBundlePath() + s("/Resources/Nimbrel.app");
        options.settingsPath = folder + s("/com.quorvia.Nimbrel.plist");
        options.dataFolder = folder + s("/Nimbrel");
        options.databasePath = folder + s("/Nimbrel/Nimbrel.nsql");
        options.calendarsFolder = folder + s("/Nimbrel/Calendars");
        options.backupFolder = folder + s("/Nimbrel/Backup");
        options.keepLog = false; // the test's standard error stays its own
        options.handleSignals = false;
        options.post = [this, bus](const QString& name) {
            if (m_onPost)
                m_onPost(name);
            return NotificationBus::post(name, bus);
        };
        return options;
    }

    void startApp()
    {
        m_app = std::make_unique<BackgroundApp>(m_options);
        QObject::connect(m_app.get(), &BackgroundApp::finished, [this](int code) { m_exitCode = code; });
        ASSERT_EQ(m_app->start(), BackgroundApp::ExitOk);
    }

    template <class F> auto onClient(F call) -> decltype(call(std::declval<AppProtocolProxy&>()))
    {
        std::optional<decltype(call(std::declval<AppProtocolProxy&>()))> result;
        std::atomic<bool> done = false;
        std::thread worker([&] {
            AppProtocolProxy proxy(m_client);
            proxy.setTimeout(10000);
            result.emplace(call(proxy));
            done = true;
        });
        waitUntil([&] { return done.load(); }, 15000);
        worker.join();
        return *result;
    }
    QVariantList calendars()
    {
        return onClient(
            [](AppProtocolProxy& p) { return p.calendarsPublishableViaBonjour().value_or(QVariantList()); });
    }
    QVariantList answers()
    {
        return onClient([](AppProtocolProxy& p) {
            return QVariantList{p.calendarsPublishableViaBonjour().value_or(QVariantList()),
                                p.sourceListOfBonjourCalendars().value_or(QVariantList()),
                                p.sourceListOfGoogleCalendars().value_or(QVariantList()),
                                p.bonjourPublisherInfo()};
        });
    }
    // Sends a one-way request and waits for the notice that answers it.
    bool request(const QString& method, const QVariantMap& argument, const QString& notice)
    {
        m_posted.clear();
        AppProtocolProxy(m_client).send(method, {argument});
        return waitUntil([&] { return m_posted.contains(notice); });
    }
    bool nameOwned() const { return m_client.interface()->isServiceRegistered(kAppProtocolService).value(); }
    QString db() const { return m_options.databasePath; }

    QString m_folder = makeTempDir();
    BackgroundOptions m_options = optionsIn(m_folder);
    QString m_calendars = m_options.calendarsFolder;
    QDBusConnection m_client = QDBusConnection::sessionBus();
    std::unique_ptr<NotificationBus> m_observer;
    std::unique_ptr<BackgroundApp> m_app;
    QStringList m_posted;
    std::optional<int> m_exitCode;
    std::function<void(const QString&)> m_onPost;
};

// Two local calendars, a server with a subscription, a Google account with one.
class ServiceChangesTest : public ServiceTest
{
protected:
    void SetUp() override
    {
        ServiceTest::SetUp();
        makeCalendar(m_calendars, "cal-a", "Alpha", {}, "#112233");
        makeCalendar(m_calendars, "cal-b", "Beta");
        startApp();
        ASSERT_EQ(calendars().size(), 2);
        sql(db(), "INSERT INTO sources VALUES ('server-1', 'server', ?)",
            {blob(m("title", "Office", "remoteURL", "https://dav.example.org/"))});
        sql(db(), "INSERT INTO sources VALUES ('google-1', 'google', ?)",
            {blob(m("remoteLogin", "me@example.org"))});
        sql(db(), "INSERT INTO subscriptions VALUES ('sub-1', 'server-1', 0, ?)", {blob(m("title", "Team"))});
        sql(db(), "INSERT INTO subscriptions VALUES ('sub-g', 'google-1', 1, ?)",
            {blob(m("title", "Holidays"))});
        sql(db(), "UPDATE calendars SET published_google = 1 WHERE uid = 'cal-b'");
    }
};

TEST_F(ServiceChangesTest, EachChangeIsOnDiskBeforeItsOneNotice)
{
    const QString longest = QString(21, QChar(0x20AC)); // 21 x 3 bytes: exactly the 63 allowed
    const struct
    {
        const char* method;
        QVariantMap input;
        QString notice;
        const char* check; // read from another connection as the notice leaves
        QVariant expected;
    } cases[] = {
        {"publishCalendarViaBonjour", m("uid", "cal-a", "publishedToBonjour", true), kPublishable,
         "SELECT published_bonjour FROM calendars WHERE uid = 'cal-a'", 1},
        {"publishOptions", m("uid", "cal-a", "readPassword", "r", "writePassword", "w", "readOnly", true),
         kPublishable,
         "SELECT read_password || write_password || read_only FROM calendars WHERE uid = 'cal-a'", s("rw1")},
        {"publishCalendarToGoogle", m("uid", "cal-a", "publishedToGoogle", qint64(1)), kGoogle,
         "SELECT published_google FROM calendars WHERE uid = 'cal-a'", 1},
        {"subscribeTo", m("uid", "sub-1", "subscribedTo", true), kBonjour,
         "SELECT subscribed FROM subscriptions WHERE uid = 'sub-1'", 1},
        {"subscribeOptions", m("uid", "sub-1", "subscribePassword", "secret", "filterToDos", true), kBonjour,
         "SELECT instr(record, 'filterToDos') > 0 AND instr(record, 'Team') > 0 FROM subscriptions "
         "WHERE uid = 'sub-1'",
         1},
        {"bonjourIPServiceOptions", m("uid", "server-1", "title", "Renamed"), kBonjour,
         "SELECT instr(settings, 'Renamed') > 0 AND instr(settings, 'dav.example.org') > 0 FROM sources "
         "WHERE uid = 'server-1'",
         1},
        {"bonjourIPServiceOptions", m("uid", "unknown", "remoteURL", "https://cal.example.com/x"), kBonjour,
         "SELECT COUNT(*) FROM sources WHERE kind = 'server' AND uid != 'unknown'", 2},
        {"disconnectBonjourIPService", m("uid", "server-1"), kBonjour,
         "SELECT (SELECT COUNT(*) FROM sources WHERE uid = 'server-1') + "
         "(SELECT COUNT(*) FROM subscriptions WHERE source_uid = 'server-1')",
         0},
        {"googleServiceOptions", m("remoteLogin", "you@example.org", "newGoogleService", true), kGoogle,
         "SELECT instr(settings, 'you@example.org') > 0 AND instr(settings, 'newGoogleService') = 0 "
         "FROM sources WHERE uid = 'google-1'",
         1},
        {"disconnectGoogleService", m("uid", "google-1"), kGoogle,
         "SELECT (SELECT COUNT(*) FROM sources WHERE kind = 'google') + "
         "(SELECT COUNT(*) FROM calendars WHERE published_google != 0)",
         0},
        {"setBonjourPublisherInfo", m("bonjourName", "Studio", "portNumber", 65535), kNamePublished,
         "SELECT group_concat(value, '/') FROM (SELECT value FROM settings ORDER BY key)", s("Studio/65535")},
        {"setBonjourPublisherInfo", m("bonjourName", longest, "portNumber", 0), kNamePublished,
         "SELECT value FROM settings WHERE key = 'bonjourName'", longest},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method);
        QVariantList seen;
        m_onPost = [&](const QString&) { seen << sql(db(), c.check).value(0); };
        StderrCapture log(13); // only trouble is written
        ASSERT_TRUE(request(s(c.method), c.input, c.notice));
        m_onPost = {};
        EXPECT_TRUE(log.text().isEmpty()) << qPrintable(log.text());
        EXPECT_EQ(m_posted, QStringList{c.notice});
        EXPECT_EQ(seen.value(0).toString(), c.expected.toString());
    }
}

TEST_F(ServiceChangesTest, BadInputIsLoggedChangesNothingAndStillPosts)
{
    const struct
    {
        const char* method;
        QVariantMap input;
        QString notice;
        const char* logged;
    } cases[] = {
        {"publishCalendarViaBonjour", m("publishedToBonjour", true), kPublishable, "\"uid\" is missing"},
        {"publishCalendarViaBonjour", m("uid", 5), kPublishable, "\"uid\" is not a string"},
        {"publishCalendarViaBonjour", m("uid", "nope", "publishedToBonjour", true), kPublishable,
         "no local calendar has the uid nope"},
        {"publishCalendarViaBonjour", m("uid", "cal-a", "publishedToBonjour", "yes"), kPublishable,
         "\"publishedToBonjour\" is not a boolean"},
        {"publishOptions", m("uid", "cal-a", "readPassword", "SECRET-R", "writePassword", 7), kPublishable,
         "\"writePassword\" is not a string"},
        {"publishCalendarToGoogle", m("uid", "sub-g", "publishedToGoogle", true), kGoogle,
         "no local calendar has the uid sub-g"},
        {"subscribeTo", m("uid", "cal-a", "subscribedTo", true), kBonjour,
         "no subscription has the uid cal-a"},
        {"bonjourIPServiceOptions", m("title", "X"), kBonjour, "\"remoteURL\" is missing or empty"},
        {"bonjourIPServiceOptions", m("uid", "google-1", "remoteURL", "https://x.example/"), kBonjour,
         "is the Google account's"},
        {"disconnectBonjourIPService", m("uid", "google-1"), kBonjour,
         "no remote server has the uid google-1"},
        {"googleServiceOptions", m("syncOptions", "daily"), kGoogle, "\"syncOptions\" is not a dictionary"},
        {"setBonjourPublisherInfo", m("bonjourName", "  "), kNamePublished, "the Bonjour name is empty"},
        {"setBonjourPublisherInfo", m("bonjourName", QString(32, QChar(0xE9))), kNamePublished,
         "longer than 63 bytes"},
        {"setBonjourPublisherInfo", m("bonjourName", "ok", "portNumber", 65536), kNamePublished,
         "use 1-65535, or 0 for an automatic port"},
        {"setBonjourPublisherInfo", m("bonjourName", "ok", "portNumber", -1), kNamePublished,
         "use 1-65535, or 0 for an automatic port"},
        {"setBonjourPublisherInfo", m("bonjourName", "ok", "portNumber", "80"), kNamePublished,
         "\"portNumber\" is not an integer"},
    };
    const QVariantList before = answers();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.logged);
        StderrCapture log(13);
        ASSERT_TRUE(request(s(c.method), c.input, c.notice));
        EXPECT_EQ(m_posted, QStringList{c.notice});
        EXPECT_TRUE(log.text().contains(s(c.logged))) << qPrintable(log.text());
        EXPECT_FALSE(log.text().contains(s("SECRET")));
        EXPECT_EQ(answers(), before);
    }
}

TEST_F(ServiceChangesTest, AnswersCarryWhatThePanelReads)
{
    const QVariantList list = calendars();
    ASSERT_EQ(column(list, "title"), (QStringList{s("Alpha"), s("Beta")}));
    const QVariantMap alpha = list[0].toMap(), beta = list[1].toMap();
    EXPECT_EQ(alpha.value(s("color")), s("#112233"));
    EXPECT_FALSE(beta.contains(s("color")));
    EXPECT_LT(alpha.value(s("order")).toLongLong(), beta.value(s("order")).toLongLong());
    for (const char* key : {"uid", "publishedToBonjour", "readPassword", "writePassword", "readOnly"})
        EXPECT_TRUE(alpha.contains(s(key))) << key;
    EXPECT_TRUE(alpha.value(s("subscribable")).toBool());
    const QVariantList all = answers();
    const QVariantMap server = all[1].toList().value(0).toMap();
    EXPECT_TRUE(server.value(s("source")).toBool());
    EXPECT_TRUE(server.value(s("offline")).toBool());
    EXPECT_FALSE(server.contains(s("syncTime")));
    EXPECT_EQ(column(server.value(s("calendars")).toList(), "uid"), QStringList{s("sub-1")});
    const QVariantMap account = all[2].toList().value(0).toMap();
    EXPECT_TRUE(account.value(s("hasPublishing")).toBool());                   // cal-b
    EXPECT_TRUE(account.value(s("hasSubscriptions")).toBool());                // sub-g
    EXPECT_FALSE(all[3].toMap().value(s("bonjourName")).toString().isEmpty()); // the host name
    EXPECT_FALSE(all[3].toMap().contains(s("portNumber")));                    // automatic
}

// A restore or a sync tool that takes a folder away and brings it back must not lose its publishing.
TEST_F(ServiceChangesTest, AVanishedCalendarGetsItsSettingsBack)
{
    ASSERT_TRUE(request(s("publishOptions"), m("uid", "cal-a", "readPassword", "r", "writePassword", "w"),
                        kPublishable));
    ASSERT_TRUE(
        request(s("publishCalendarViaBonjour"), m("uid", "cal-a", "publishedToBonjour", true), kPublishable));
    m_posted.clear();
    ASSERT_TRUE(QDir().rename(m_calendars + s("/cal-a"), m_folder + s("/cal-a")));
    ASSERT_TRUE(waitUntil([&] { return m_posted.contains(kCalendarsChanged); }));
    EXPECT_EQ(column(calendars(), "uid"), QStringList{s("cal-b")});
    m_posted.clear();
    ASSERT_TRUE(QDir().rename(m_folder + s("/cal-a"), m_calendars + s("/cal-a")));
    ASSERT_TRUE(waitUntil([&] { return m_posted.contains(kCalendarsChanged); }));
    const QVariantMap back = calendars().value(0).toMap();
    EXPECT_EQ(back.value(s("uid")), s("cal-a"));
    EXPECT_TRUE(back.value(s("publishedToBonjour")).toBool());
    EXPECT_EQ(back.value(s("writePassword")), s("w"));
}

TEST_F(ServiceChangesTest, ResetBacksUpEveryCalendarThenStartsAfreshOrChangesNothing)
{
    ASSERT_TRUE(
        request(s("publishCalendarViaBonjour"), m("uid", "cal-a", "publishedToBonjour", true), kPublishable));
    // Unconfirmed when the backup fails: the panel reports it when its wait ends.
    writeFile(m_options.backupFolder, "a file where the backup folder should be");
    const QVariantList before = answers();
    m_posted.clear();
    AppProtocolProxy(m_client).resetDatabase();
    EXPECT_EQ(answers(), before); // handled in order: the reset is over
    EXPECT_FALSE(m_posted.contains(s("Nimbrel Reset")));

    QFile::remove(m_options.backupFolder);
    AppProtocolProxy(m_client).resetDatabase();
    ASSERT_TRUE(waitUntil([&] { return m_posted.contains(s("Nimbrel Reset")); }));
    EXPECT_EQ(QDir(m_options.backupFolder).entryList({s("* 20*.ics")}, QDir::Files).size(), 2);
    const QVariantList after = answers();
    EXPECT_EQ(column(after[0].toList(), "publishedToBonjour"), (QStringList{s("false"), s("false")}));
    EXPECT_TRUE(after[1].toList().isEmpty() && after[2].toList().isEmpty());
    EXPECT_EQ(sql(db(), "SELECT COUNT(*) FROM sync_history").value(0).toInt(), 0);
}

TEST_F(ServiceTest, OneInstancePerBusAndPerDataFolder)
{
    startApp();
    EXPECT_EQ(onClient([](AppProtocolProxy& p) { return p.version(); }), kAppProtocolVersion);
    // The same bus: refused by the name, without touching anything.
    BackgroundOptions second = optionsIn(makeTempDir());
    second.connection = QDBusConnection::connectToBus(QDBusConnection::SessionBus, s("second"));
    EXPECT_EQ(BackgroundApp(second).start(), BackgroundApp::ExitAlreadyRunning);
    EXPECT_FALSE(QFileInfo::exists(second.databasePath));
    // Another session's bus, the same data folder: refused by the lock, saying who holds it.
    PrivateBus otherSession;
    BackgroundOptions other =
        optionsIn(m_folder, QDBusConnection::connectToBus(otherSession.address(), s("other")));
    {
        StderrCapture said;
        EXPECT_EQ(BackgroundApp(other).start(), BackgroundApp::ExitAlreadyRunning);
        EXPECT_TRUE(said.text().contains(s("already running on this data folder")));
        EXPECT_TRUE(said.text().contains(s("process %1").arg(::getpid()))) << qPrintable(said.text());
    }
    EXPECT_TRUE(nameOwned());
    EXPECT_EQ(m_posted.count(s("Nimbrel Running")), 1);

    // A lock left by a process that died is taken over.
    m_app.reset();
    QProcess gone;
    gone.start(s("true"));
    gone.waitForStarted();
    const qint64 deadPid = gone.processId();
    gone.waitForFinished();
    writeFile(m_options.dataFolder + s("/Nimbrel.lock"),
              QByteArray::number(deadPid) + "\nNimbrel\n" + QSysInfo::machineHostName().toUtf8() + '\n');
    BackgroundApp again(other);
    EXPECT_EQ(again.start(), BackgroundApp::ExitOk);
}

// "Stopped" leaves only once the last change is on disk, the state is closed and the name is free.
TEST_F(ServiceTest, ShutdownAndSigtermStopCleanly)
{
    for (const bool bySignal : {false, true}) {
        SCOPED_TRACE(bySignal ? "SIGTERM" : "shutdown");
        m_options.handleSignals = bySignal;
        startApp();
        QVariantMap calendar = calendars().value(1).toMap();
        calendar.insert(s("publishedToBonjour"), true);
        std::optional<bool> ownedAtStopped, openAtStopped;
        QVariantList publishedAtStopped;
        m_onPost = [&](const QString& name) {
            if (name != s("Nimbrel Stopped"))
                return;
            ownedAtStopped = nameOwned();
            openAtStopped = m_app->state()->isOpen();
            publishedAtStopped = sql(db(), "SELECT uid FROM calendars WHERE published_bonjour = 1");
        };
        m_posted.clear();
        m_exitCode.reset();
        AppProtocolProxy(m_client).publishCalendarViaBonjour(calendar); // handled before what follows
        if (!bySignal)
            AppProtocolProxy(m_client).shutdown();
        else if (waitUntil([&] { return m_posted.contains(kPublishable); }))
            ::kill(::getpid(), SIGTERM);
        ASSERT_TRUE(waitUntil([&] { return m_exitCode.has_value(); }));
        m_onPost = {};
        EXPECT_EQ(m_exitCode, BackgroundApp::ExitOk);
        EXPECT_EQ(ownedAtStopped, false) << "the name was still owned when Stopped was posted";
        EXPECT_EQ(openAtStopped, false);
        EXPECT_EQ(publishedAtStopped, QVariantList{calendar.value(s("uid"))});
        m_app.reset();
    }
    struct sigaction current = {};
    sigaction(SIGTERM, nullptr, &current);
    EXPECT_EQ(current.sa_handler, SIG_DFL);
}

TEST_F(ServiceTest, LosingTheBusEndsTheApplicationWithTheDatabaseClosed)
{
    PrivateBus session;
    m_options = optionsIn(m_folder, QDBusConnection::connectToBus(session.address(), s("lost")));
    startApp();
    StderrCapture log(13);
    session.stop();
    ASSERT_TRUE(waitUntil([&] { return m_exitCode.has_value(); }));
    EXPECT_EQ(m_exitCode, BackgroundApp::ExitOk);
    EXPECT_FALSE(m_app->state()->isOpen());
    EXPECT_TRUE(log.text().contains(s("the session bus went away"))) << qPrintable(log.text());
    EXPECT_EQ(QFileInfo(db() + s("-wal")).size(), 0); // folded back into the file
}

TEST_F(ServiceTest, SupportInformationAndLogTextAndACorruptSettingsFile)
{
    writeFile(m_options.settingsPath, "this is not a property list");
    StderrCapture log(2); // the log is standard error here, as in the program
    startApp();
    SettingsStore shared(m_options.settingsPath);
    shared.setValue(s("smtpPassword"), s("hunter2-secret"));
    shared.setValue(s("lastResetDate"), QDateTime(QDate(2024, 3, 4), QTime(9, 26, 53), Qt::UTC));
    const QString kept = m_options.settingsPath + s(".corrupt");
    EXPECT_EQ(readFile(kept), "this is not a property list");
    EXPECT_TRUE(log.text().contains(s("could not be read; it was kept as ") + kept))
        << qPrintable(log.text());

    // The support block is written before the reply, without passwords; a text is never a format.
    const QString text = onClient([&](AppProtocolProxy& proxy) {
        proxy.techSupportInfo();
        return log.text();
    });
    for (const char* expected :
         {"Protocol version 5", "Qt ", "lastResetDate = 2024-03-04T09:26:53Z", "Local calendars: 2"})
        EXPECT_TRUE(text.contains(s(expected))) << expected << "\n" << qPrintable(text);
    EXPECT_FALSE(text.contains(s("hunter2")));
    AppProtocolProxy(m_client).log(s("100% sure: %d %@ %s %n %%"));
    EXPECT_TRUE(waitUntil([&] { return log.text().contains(s(" - 100% sure: %d %@ %s %n %%\n")); }));
    m_posted.clear();
    AppProtocolProxy(m_client).checkForUpdate();
    EXPECT_TRUE(waitUntil([&] { return m_posted.contains(s("Nimbrel Bonjour Checked Update")); }));
}

} // namespace

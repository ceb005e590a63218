// The background application in-process, as the panel sees it over the bus: changes, bad input, a
// vanished calendar, the reset, and its life (a second instance on the bus or the data folder, shutdown,
// SIGTERM, the bus going away, support information, a corrupt settings file). It serves from the test
// thread, as from its main thread in the program; blocking calls go out from a worker thread.

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
#include <QSysInfo>
#include <atomic>
#include <csignal>
#include <sys/wait.h>
#include <thread>

using namespace nimbrel;
using namespace nimbrel::background;
using namespace nimbrel::background::test;
using namespace nimbrel::notification;
using nimbrel::test::waitUntil;

namespace {

class ServiceTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // Nothing reaches the network: the feed is a local file, and automatic checks are off.
        writeFile(m_folder + s("/appcast.xml"), "<rss version=\"2.0\"><channel/></rss>");
        qputenv("NIMBREL_UPDATE_FEED", (m_folder + s("/appcast.xml")).toUtf8());
        SettingsStore(m_options.settingsPath).setValue(s("checkForUpdateInterval"), kAutoCheckOffInterval);
        for (const QLatin1StringView name : all)
            m_observer.addObserver(name, [this, name] { m_posted << QString(name); });
    }
    // The program's own folders (private to the test's process), the test's bus, standard error and signals.
    BackgroundOptions optionsOn(const QDBusConnection& bus = QDBusConnection::sessionBus())
    {
        BackgroundOptions options =
            BackgroundOptions::defaults(nimbrel::test::paneBundlePath() + s("/Resources/Nimbrel.app"));
        options.connection = bus;
        options.keepLog = options.handleSignals = false;
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
            AppProtocolProxy proxy;
            proxy.setTimeout(10000);
            result.emplace(call(proxy));
            done = true;
        });
        waitUntil([&] { return done.load(); }, 15000);
        worker.join();
        return *result;
    }
    // The calendars, servers, Google account and publisher info.
    QVariantList answers()
    {
        return onClient([](AppProtocolProxy& p) {
            return QVariantList{p.calendarsPublishableViaBonjour().value_or(QVariantList()),
                                p.sourceListOfBonjourCalendars().value_or(QVariantList()),
                                p.sourceListOfGoogleCalendars().value_or(QVariantList()),
                                p.bonjourPublisherInfo()};
        });
    }
    QVariantList calendars() { return answers().value(0).toList(); }
    // Sends a one-way request (no argument when `argument` is null) and waits for the notice.
    bool request(const QString& method, const QVariant& argument, const QString& notice)
    {
        m_posted.clear();
        AppProtocolProxy().send(method, argument.isNull() ? QVariantList() : QVariantList{argument});
        return waitUntil([&] { return m_posted.contains(notice); });
    }
    QString db() const { return m_options.databasePath; }

    QString m_folder = makeTempDir();
    BackgroundOptions m_options = optionsOn();
    NotificationBus m_observer;
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
        makeCalendar(m_options.calendarsFolder, "cal-a", "Alpha", {}, "#112233");
        makeCalendar(m_options.calendarsFolder, "cal-b", "Beta");
        startApp();
        ASSERT_EQ(calendars().size(), 2);
        const auto blob = [](const QVariantMap& map) { return plist::write(map).value_or(QByteArray()); };
        sql(db(), "INSERT INTO sources VALUES ('server-1', 'server', ?)", {blob(m("title", "Office"))});
        sql(db(), "INSERT INTO sources VALUES ('google-1', 'google', ?)",
            {blob(m("remoteLogin", "me@x.org"))});
        sql(db(), "INSERT INTO subscriptions VALUES ('sub-1', 'server-1', 0, ?)", {blob(m("title", "Team"))});
        sql(db(), "INSERT INTO subscriptions VALUES ('sub-g', 'google-1', 1, ?)", {blob(m("title", "Days"))});
        sql(db(), "UPDATE calendars SET published_google = 1 WHERE uid = 'cal-b'");
    }
};

TEST_F(ServiceChangesTest, EachChangeIsOnDiskBeforeItsOneNotice)
{
    // The answers have what the panel reads.
    const QVariantList before = answers();
    const QVariantMap alpha = before[0].toList().value(0).toMap(), beta = before[0].toList().value(1).toMap();
    EXPECT_TRUE(alpha.value(s("color")) == s("#112233") && !beta.contains(s("color")));
    EXPECT_LT(alpha.value(s("order")).toLongLong(), beta.value(s("order")).toLongLong());
    EXPECT_TRUE(before[2].toList().value(0).toMap().value(s("hasPublishing")).toBool()); // cal-b
    EXPECT_FALSE(before[3].toMap().contains(s("portNumber")));                           // automatic
    const QString longest = QString(21, QChar(0x20AC)); // 21 x 3 bytes: exactly the 63 allowed
    // Method, argument, notice; what another connection reads as the notice leaves.
    const std::tuple<const char*, QVariantMap, QString, const char*, QVariant> cases[] = {
        {"publishCalendarViaBonjour", m("uid", "cal-a", "publishedToBonjour", true), bonjourPublishableChange,
         "SELECT published_bonjour FROM calendars WHERE uid = 'cal-a'", 1},
        {"publishOptions", m("uid", "cal-a", "readPassword", "r", "writePassword", "w", "readOnly", true),
         bonjourPublishableChange, "SELECT read_password || write_password || read_only FROM calendars",
         s("rw1")},
        {"publishCalendarToGoogle", m("uid", "cal-a", "publishedToGoogle", qint64(1)), googleChange,
         "SELECT SUM(published_google) FROM calendars", 2},
        {"subscribeOptions", m("uid", "sub-1", "filterToDos", true), bonjourChange,
         "SELECT instr(record, 'filterToDos') * instr(record, 'Team') > 0 FROM subscriptions", 1},
        {"bonjourIPServiceOptions", m("uid", "new", "remoteURL", "https://x.org/"), bonjourChange,
         "SELECT COUNT(*) FROM sources WHERE uid != 'new'", 3},
        {"disconnectBonjourIPService", m("uid", "server-1"), bonjourChange,
         "SELECT COUNT(*) FROM subscriptions WHERE source_uid = 'server-1'", 0},
        {"disconnectGoogleService", m("uid", "google-1"), googleChange,
         "SELECT COUNT(*) FROM calendars WHERE published_google != 0", 0},
        {"setBonjourPublisherInfo", m("bonjourName", longest, "portNumber", 65535), bonjourNamePublished,
         "SELECT group_concat(value, '/') FROM settings", longest + s("/65535")},
    };
    for (const auto& [method, input, notice, check, expected] : cases) {
        SCOPED_TRACE(method);
        QVariantList seen;
        m_onPost = [&, check = check](const QString&) { seen << sql(db(), check).value(0); };
        StderrCapture log(13); // only trouble is written
        ASSERT_TRUE(request(s(method), input, notice));
        m_onPost = {};
        EXPECT_TRUE(log.text().isEmpty()) << qPrintable(log.text());
        EXPECT_EQ(m_posted, QStringList{notice});
        EXPECT_EQ(seen.value(0).toString(), expected.toString());
    }
}

TEST_F(ServiceChangesTest, BadInputIsLoggedChangesNothingAndStillPosts)
{
    // Method, argument, notice, what the log says.
    const std::tuple<const char*, QVariantMap, QString, const char*> cases[] = {
        {"publishCalendarViaBonjour", m("publishedToBonjour", true), bonjourPublishableChange,
         "\"uid\" is missing"},
        {"publishCalendarViaBonjour", m("uid", "nope", "publishedToBonjour", true), bonjourPublishableChange,
         "no local calendar has the uid nope"},
        {"publishOptions", m("uid", "cal-a", "readPassword", "SECRET-R", "writePassword", 7),
         bonjourPublishableChange, "\"writePassword\" is not a string"},
        {"subscribeTo", m("uid", "cal-a", "subscribedTo", true), bonjourChange,
         "no subscription has the uid cal-a"},
        {"bonjourIPServiceOptions", m("title", "X"), bonjourChange, "\"remoteURL\" is missing or empty"},
        {"setBonjourPublisherInfo", m("bonjourName", QString(32, QChar(0xE9))), bonjourNamePublished,
         "longer than 63 bytes"},
        {"setBonjourPublisherInfo", m("bonjourName", "ok", "portNumber", 65536), bonjourNamePublished,
         "use 1-65535, or 0 for an automatic port"},
        {"setBonjourPublisherInfo", m("bonjourName", "ok", "portNumber", "80"), bonjourNamePublished,
         "\"portNumber\" is not an integer"},
    };
    const QVariantList before = answers();
    for (const auto& [method, input, notice, logged] : cases) {
        SCOPED_TRACE(logged);
        StderrCapture log(13);
        ASSERT_TRUE(request(s(method), input, notice));
        EXPECT_EQ(m_posted, QStringList{notice});
        EXPECT_TRUE(log.text().contains(s(logged)) && !log.text().contains(s("SECRET")))
            << qPrintable(log.text());
        EXPECT_EQ(answers(), before);
    }
}

// A restore or a sync tool that takes a folder away and brings it back must not lose its publishing.
TEST_F(ServiceChangesTest, AVanishedCalendarGetsItsSettingsBack)
{
    ASSERT_TRUE(
        request(s("publishOptions"), m("uid", "cal-a", "writePassword", "w"), bonjourPublishableChange));
    const QString folder = m_options.calendarsFolder + s("/cal-a");
    for (const auto& [from, to] :
         {std::pair(folder, m_folder + s("/away")), std::pair(m_folder + s("/away"), folder)}) {
        m_posted.clear();
        ASSERT_TRUE(QDir().rename(from, to));
        ASSERT_TRUE(waitUntil([&] { return m_posted.contains(calendarsChanged); }));
        EXPECT_EQ(calendars().size(), from == folder ? 1 : 2);
    }
    EXPECT_EQ(calendars().value(0).toMap().value(s("writePassword")), s("w"));
}

TEST_F(ServiceChangesTest, ResetBacksUpEveryCalendarThenStartsAfreshOrChangesNothing)
{
    // One backup a calendar, its components merged and each time zone once, whatever its title.
    const QByteArray zone = "BEGIN:VTIMEZONE\r\nTZID:Europe/Berlin\r\nEND:VTIMEZONE\r\n";
    for (const char* uid : {"e1", "e2"})
        writeFile(m_options.calendarsFolder + s("/cal-a/%1.ics").arg(s(uid)),
                  "BEGIN:VCALENDAR\r\n" + zone + "BEGIN:VEVENT\r\nUID:" + uid +
                      "\r\nEND:VEVENT\r\nEND:VCALENDAR\r\n");
    writeFile(m_options.calendarsFolder + s("/cal-b/displayname"), "../Evil\rBEGIN:VEVENT\n");
    ASSERT_TRUE(request(s("publishCalendarViaBonjour"), m("uid", "cal-a", "publishedToBonjour", true),
                        bonjourPublishableChange));
    // Unconfirmed when the backup fails: the panel reports it when its wait ends.
    writeFile(m_options.backupFolder, "a file where the backup folder should be");
    const QVariantList before = answers();
    {
        StderrCapture log(13);
        AppProtocolProxy().resetDatabase();
        ASSERT_TRUE(
            waitUntil([&] { return log.text().contains(s("the backup failed, nothing was reset")); }));
    }
    EXPECT_EQ(answers(), before);
    EXPECT_FALSE(m_posted.contains(s("Nimbrel Reset")));
    QFile::remove(m_options.backupFolder);
    ASSERT_TRUE(request(s("resetDatabase"), {}, reset));
    const QStringList backups = QDir(m_options.backupFolder).entryList({s("*.ics")}, QDir::Files, QDir::Name);
    ASSERT_EQ(backups.size(), 2);
    EXPECT_TRUE(backups[0].startsWith(s("Alpha 20")) && backups[1].startsWith(s("_Evil_BEGIN_VEVENT 20")));
    const QByteArray alpha = readFile(m_options.backupFolder + QLatin1Char('/') + backups[0]);
    EXPECT_EQ(alpha.count("BEGIN:VTIMEZONE") * 10 + alpha.count("BEGIN:VEVENT"), 12);
    EXPECT_EQ(readFile(m_options.backupFolder + QLatin1Char('/') + backups[1]).count("\nBEGIN:VEVENT"),
              0); // one line
    const QVariantList after = answers();
    EXPECT_FALSE(after[0].toList().value(0).toMap().value(s("publishedToBonjour")).toBool());
    EXPECT_TRUE(after[1].toList().isEmpty() && after[2].toList().isEmpty());
    EXPECT_EQ(sql(db(), "SELECT COUNT(*) FROM sync_history").value(0).toInt(), 0);
}

TEST_F(ServiceTest, OneInstancePerBusAndPerDataFolder)
{
    startApp();
    // The same bus: refused by the name, without touching anything.
    BackgroundOptions second =
        optionsOn(QDBusConnection::connectToBus(QDBusConnection::SessionBus, s("second")));
    second.dataFolder = m_folder; // not the first one's: only the name keeps it out
    second.databasePath = m_folder + s("/second.nsql");
    EXPECT_EQ(BackgroundApp(second).start(), BackgroundApp::ExitAlreadyRunning);
    EXPECT_FALSE(QFileInfo::exists(second.databasePath));
    // Another session's bus, the same data folder: refused by the lock, saying who holds it.
    PrivateBus otherSession;
    const BackgroundOptions other =
        optionsOn(QDBusConnection::connectToBus(otherSession.address, s("other")));
    {
        StderrCapture said(13);
        EXPECT_EQ(BackgroundApp(other).start(), BackgroundApp::ExitAlreadyRunning);
        const QString expected = s("already running on this data folder: %1 is in use by process %2");
        EXPECT_TRUE(said.text().contains(expected.arg(other.dataFolder).arg(::getpid())))
            << qPrintable(said.text());
    }
    EXPECT_EQ(onClient([](AppProtocolProxy& p) { return p.version(); }), kAppProtocolVersion);
    EXPECT_EQ(m_posted.count(s("Nimbrel Running")), 1);
    // A lock left by a process that died is taken over.
    m_app.reset();
    const pid_t dead = ::fork();
    if (dead == 0)
        ::_exit(0);
    ::waitpid(dead, nullptr, 0);
    writeFile(other.dataFolder + s("/Nimbrel.lock"),
              QByteArray::number(dead) + "\nNimbrel\n" + QSysInfo::machineHostName().toUtf8() + "\n");
    EXPECT_EQ(BackgroundApp(other).start(), BackgroundApp::ExitOk);
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
        QVariantList atStopped;
        QDBusConnectionInterface* bus = QDBusConnection::sessionBus().interface();
        m_onPost = [&](const QString& name) {
            if (name == QLatin1String(stopped))
                atStopped = {bus->isServiceRegistered(kAppProtocolService).value(), m_app->state()->isOpen(),
                             sql(db(), "SELECT uid FROM calendars WHERE published_bonjour")};
        };
        m_exitCode.reset();
        ASSERT_TRUE(request(s("publishCalendarViaBonjour"), calendar, bonjourPublishableChange));
        if (bySignal)
            ::kill(::getpid(), SIGTERM);
        else
            AppProtocolProxy().shutdown();
        ASSERT_TRUE(waitUntil([&] { return m_exitCode.has_value(); }));
        m_onPost = {};
        EXPECT_EQ(m_exitCode, BackgroundApp::ExitOk);
        // Name released, state closed, the change on disk.
        EXPECT_EQ(atStopped, (QVariantList{false, false, QVariantList{calendar.value(s("uid"))}}));
        m_app.reset();
    }
}

TEST_F(ServiceTest, LosingTheBusEndsTheApplicationWithTheDatabaseClosed)
{
    PrivateBus session;
    m_options = optionsOn(QDBusConnection::connectToBus(session.address, s("lost")));
    startApp();
    StderrCapture log(13);
    session.stop();
    ASSERT_TRUE(waitUntil([&] { return m_exitCode.has_value(); }));
    EXPECT_EQ(m_exitCode, BackgroundApp::ExitOk);
    EXPECT_FALSE(m_app->state()->isOpen());
    EXPECT_TRUE(log.text().contains(s("the session bus went away"))) << qPrintable(log.text());
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
         {"Protocol version 5", "lastResetDate = 2024-03-04T09:26:53Z", "Local calendars: 2"})
        EXPECT_TRUE(text.contains(s(expected))) << expected << "\n" << qPrintable(text);
    EXPECT_FALSE(text.contains(s("hunter2")));
    AppProtocolProxy().log(s("100% sure: %d %@ %s %n %%"));
    EXPECT_TRUE(waitUntil([&] { return log.text().contains(s(" - 100% sure: %d %@ %s %n %%\n")); }));
}

} // namespace

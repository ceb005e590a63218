// The background application in-process on the test's private bus: its life (Running, Stopped, a second
// instance, SIGTERM) and the protocol as a client sees it.
//
// The application serves from the test thread, as it serves from its main thread in the program.
// A client's blocking calls therefore go out from a worker thread on a connection of its own
// (onClient), while the test thread keeps the event loop turning; one-way calls and notification
// observers stay on the test thread.

#include "BackgroundApp.h"
#include "NimbrelState.h"
#include "UpdateCheck.h"
#include "link/AppProtocolProxy.h"
#include "protocol/NotificationBus.h"
#include "logging/Log.h"
#include "platform/SettingsStore.h"
#include "support/TestEnvironment.h"

#include <QDBusConnectionInterface>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <optional>
#include <thread>
#include <unistd.h>

using namespace nimbrel;
using namespace nimbrel::background;
using nimbrel::test::makeTempDir;
using nimbrel::test::waitUntil;

namespace {

using nimbrel::test::s;

QString readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

class ServiceAppTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        // No test may reach the network: the feed is a local file, and automatic checks are off.
        const QString feed = m_folder + s("/appcast.xml");
        QFile file(feed);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QStringLiteral("<rss version=\"2.0\" xmlns:nv=\"%1\"><channel><item><enclosure "
                                  "nv:shortVersionString=\"0.1\"/></item></channel></rss>")
                       .arg(kVersionNamespace)
                       .toUtf8());
        qputenv("NIMBREL_UPDATE_FEED", QUrl::fromLocalFile(feed).toString().toUtf8());
        SettingsStore(m_options.settingsPath).setValue(s("checkForUpdateInterval"), kAutoCheckOffInterval);

        ASSERT_TRUE(m_client.isConnected());
        m_observer = std::make_unique<NotificationBus>(m_client);
        for (const char* name : {"Nimbrel Running", "Nimbrel Stopped", "Nimbrel Bonjour Checked Update"})
            ASSERT_TRUE(m_observer->addObserver(s(name), [this, name] { m_posted.append(s(name)); }));
    }

    void TearDown() override
    {
        m_app.reset();
        m_observer.reset();
        m_client = QDBusConnection(QString());
        QDBusConnection::disconnectFromBus(s("client"));
        qunsetenv("NIMBREL_UPDATE_FEED");
    }

    BackgroundOptions optionsIn(const QString& folder)
    {
        BackgroundOptions options;
        options.appBundlePath = test::paneBundlePath() + s("/Resources/Nimbrel.app");
        options.settingsPath = folder + s("/com.quorvia.Nimbrel.plist");
        options.databasePath = folder + s("/Nimbrel/Nimbrel.nsql");
        options.calendarsFolder = folder + s("/Nimbrel/Calendars");
        options.backupFolder = folder + s("/Nimbrel/Backup");
        options.keepLog = false; // the test's standard error stays its own
        options.handleSignals = false;
        options.post = [this](const QString& name) {
            if (m_onPost)
                m_onPost(name);
            return NotificationBus::post(name, QDBusConnection::sessionBus());
        };
        return options;
    }

    void startApp()
    {
        m_app = std::make_unique<BackgroundApp>(m_options);
        QObject::connect(m_app.get(), &BackgroundApp::finished, [this](int code) { m_exitCode = code; });
        ASSERT_EQ(m_app->start(), BackgroundApp::ExitOk);
        ASSERT_TRUE(waitUntil([this] { return m_posted.contains(s("Nimbrel Running")); }));
    }

    // Runs a blocking client call on a worker thread while the test thread serves.
    template <class F> auto onClient(F call) -> decltype(call(std::declval<AppProtocolProxy&>()))
    {
        std::optional<decltype(call(std::declval<AppProtocolProxy&>()))> result;
        std::atomic<bool> done = false;
        std::thread worker([&] {
            AppProtocolProxy proxy(m_client);
            proxy.setTimeout(4000);
            result.emplace(call(proxy));
            done = true;
        });
        waitUntil([&] { return done.load(); });
        worker.join();
        return *result;
    }

    AppProtocolProxy oneWay() const { return AppProtocolProxy(m_client); }
    bool serviceHasOwner() const
    {
        return m_client.interface()->isServiceRegistered(kAppProtocolService).value();
    }

    QString m_folder = makeTempDir();
    BackgroundOptions m_options = optionsIn(m_folder);
    QDBusConnection m_client = QDBusConnection::connectToBus(QDBusConnection::SessionBus, s("client"));
    std::unique_ptr<NotificationBus> m_observer;
    std::unique_ptr<BackgroundApp> m_app;
    QStringList m_posted;
    std::optional<int> m_exitCode;
    std::function<void(const QString&)> m_onPost;
};

TEST_F(ServiceAppTest, ServesVersionFiveAndRefusesASecondInstanceWithoutTouchingAnything)
{
    startApp();
    EXPECT_TRUE(serviceHasOwner());
    BackgroundOptions second = optionsIn(makeTempDir());
    second.connection = QDBusConnection::connectToBus(QDBusConnection::SessionBus, s("second"));
    {
        BackgroundApp other(second);
        EXPECT_EQ(other.start(), BackgroundApp::ExitAlreadyRunning);
        EXPECT_FALSE(other.isServing());
    }
    QDBusConnection::disconnectFromBus(s("second"));
    EXPECT_FALSE(QFileInfo::exists(second.databasePath)) << "a refused instance opened a database";
    EXPECT_FALSE(QFileInfo::exists(second.calendarsFolder));
    // The first still serves, and announced itself once.
    EXPECT_EQ(onClient([](AppProtocolProxy& proxy) { return proxy.version(); }), kAppProtocolVersion);
    EXPECT_EQ(m_posted.count(s("Nimbrel Running")), 1);
}

// A change sent through the wire, then shutdown: "Nimbrel Stopped" leaves only once the change is on
// disk, the state is closed and the name is free.
TEST_F(ServiceAppTest, ShutdownPostsStoppedAfterTheLastChangeIsOnDiskAndTheNameIsFree)
{
    startApp();
    const QVariantList before =
        onClient([](AppProtocolProxy& p) { return p.calendarsPublishableViaBonjour().value_or(QVariantList()); });
    ASSERT_EQ(before.size(), 2); // "Home" and "Work" on a first start
    QVariantMap calendar = before.value(1).toMap();
    ASSERT_EQ(calendar.value(s("publishedToBonjour")), QVariant(false));
    calendar.insert(s("publishedToBonjour"), true);
    // Values the wire must carry as they are: a nested dictionary with a date, an array.
    calendar.insert(s("extra"), QVariantMap{{s("when"), QDateTime::currentDateTimeUtc()},
                                            {s("list"), QVariantList{1, s("two")}}});

    std::optional<bool> ownerAtStopped, openAtStopped;
    QStringList publishedAtStopped;
    m_onPost = [&](const QString& name) {
        if (name != s("Nimbrel Stopped"))
            return;
        ownerAtStopped = serviceHasOwner();
        openAtStopped = m_app->state()->isOpen();
        NimbrelState reopened(m_options.databasePath, m_options.calendarsFolder, m_options.backupFolder, {});
        if (reopened.open()) {
            for (const QVariant& entry : reopened.calendarsPublishableViaBonjour()) {
                if (entry.toMap().value(s("publishedToBonjour")).toBool())
                    publishedAtStopped << entry.toMap().value(s("uid")).toString();
            }
        }
    };
    // Both one-way, in this order on one connection: the change is handled before the shutdown.
    oneWay().publishCalendarViaBonjour(calendar);
    oneWay().shutdown();

    ASSERT_TRUE(waitUntil([&] { return m_posted.contains(s("Nimbrel Stopped")); }));
    EXPECT_EQ(ownerAtStopped, std::optional<bool>(false))
        << "the name was still owned when Stopped was posted";
    EXPECT_EQ(openAtStopped, std::optional<bool>(false));
    EXPECT_EQ(publishedAtStopped, QStringList{calendar.value(s("uid")).toString()});
    EXPECT_TRUE(waitUntil([&] { return m_exitCode.has_value(); }));
    EXPECT_EQ(m_exitCode, std::optional<int>(BackgroundApp::ExitOk));
    EXPECT_FALSE(m_app->isServing());
}

TEST_F(ServiceAppTest, SigtermStopsCleanlyAndTheHandlerIsRemovedAfterwards)
{
    m_options.handleSignals = true;
    startApp();
    ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
    ASSERT_TRUE(waitUntil([&] { return m_posted.contains(s("Nimbrel Stopped")); }));
    EXPECT_EQ(m_exitCode, std::optional<int>(BackgroundApp::ExitOk));
    EXPECT_FALSE(serviceHasOwner());

    m_app.reset();
    struct sigaction current = {};
    sigaction(SIGTERM, nullptr, &current);
    EXPECT_EQ(current.sa_handler, SIG_DFL);
}

TEST_F(ServiceAppTest, TechSupportInfoIsLoggedBeforeTheReplyWithoutPasswordsAndTextIsNeverAFormat)
{
    SettingsStore settings(m_options.settingsPath);
    settings.setValue(s("smtpPassword"), s("hunter2-secret"));
    settings.setValue(s("lastResetDate"), QDateTime(QDate(2024, 3, 4), QTime(9, 26, 53), Qt::UTC));
    startApp();

    const QString filtered = filteredLogFilePath(s("ServiceAppTest"));
    QDir().mkpath(QFileInfo(filtered).path());
    OpenFilteredLogFile(s("ServiceAppTest"), false, true); // level 10 lines land here at once
    // Read on the client thread right after the reply: whatever is logged later is too late.
    const QString log = onClient([&](AppProtocolProxy& proxy) {
        proxy.techSupportInfo();
        return readFile(filtered);
    });
    CloseFilteredLogFile();
    for (const QString& expected :
         {s("Protocol version 5"), s("Nimbrel ") + BackgroundApp::appVersion(m_options.appBundlePath),
          s("Qt "), s("lastResetDate = 2024-03-04T09:26:53Z"), s("checkForUpdateInterval = "), s("State:")})
        EXPECT_TRUE(log.contains(expected)) << qPrintable(expected) << "\n" << qPrintable(log);
    EXPECT_FALSE(log.contains(s("hunter2-secret")));
    EXPECT_FALSE(log.contains(s("smtpPassword")));

    const QString path = m_folder + s("/stderr.log");
    const int savedStderr = ::dup(STDERR_FILENO);
    ASSERT_EQ(ReopenStandardError(path), 0);
    const QString text = s("100% sure: %d %@ %s %n %%");
    oneWay().log(text);
    const bool arrived = waitUntil([&] {
        std::fflush(stderr);
        return readFile(path).contains(s(" - ") + text + s("\n"));
    });
    std::fflush(stderr);
    ::dup2(savedStderr, STDERR_FILENO);
    ::close(savedStderr);
    EXPECT_TRUE(arrived) << qPrintable(readFile(path));
}

TEST_F(ServiceAppTest, RequestedUpdateCheckRecordsTheTimeAndConfirms)
{
    startApp();
    const QDateTime before = QDateTime::currentDateTimeUtc().addSecs(-1);
    oneWay().checkForUpdate();
    ASSERT_TRUE(waitUntil([&] { return m_posted.contains(s("Nimbrel Bonjour Checked Update")); }));
    const std::optional<QDateTime> checked =
        SettingsStore(m_options.settingsPath).dateValue(s("SULastCheckTime"));
    ASSERT_TRUE(checked.has_value());
    EXPECT_GE(*checked, before);
}

} // namespace

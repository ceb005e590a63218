// The panel against the real background application on a private bus, with this test's own HOME:
// Start and Stop from the button reach the status line, and the log tab shows what Nimbrel wrote.

#include "PreferencesHost.h"
#include "logging/Log.h"
#include "platform/SettingsStore.h"
#include "platform/Strings.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QTabWidget>
#include <QUrl>
#include <csignal>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using test::s;

// The Nimbrel of this test: the build tree's executable running with this test's HOME.
qint64 ourBackgroundApp(const QString& executable)
{
    const QByteArray home = "HOME=" + QDir::homePath().toUtf8();
    for (const QString& pid : QDir(s("/proc")).entryList({s("[0-9]*")}, QDir::Dirs)) {
        if (QFileInfo(s("/proc/%1/exe").arg(pid)).symLinkTarget() != executable)
            continue;
        QFile environ(s("/proc/%1/environ").arg(pid));
        if (environ.open(QIODevice::ReadOnly) && environ.readAll().split('\0').contains(home))
            return pid.toLongLong();
    }
    return 0;
}

TEST(Panel, StartAndStopReachTheStatusLineAndTheLogTabShowsNimbrelsLines)
{
    const QString feed = test::makeTempDir() + s("/appcast.xml");
    QFile file(feed);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write("<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>Nimbrel</title></channel></rss>");
    file.close();
    qputenv("NIMBREL_UPDATE_FEED", QUrl::fromLocalFile(feed).toString().toUtf8());
    SettingsStore(SettingsStore::domainPath(s("com.quorvia.Nimbrel"))).setValue(s("welcomed"), true);

    const Bundle bundle(test::paneBundlePath());
    ASSERT_TRUE(bundle.loadStringTable(kStringTable));
    const QString executable = Bundle(bundle.resourcePath() + s("/Nimbrel.app")).executablePath();
    PaneEnvironment environment;
    environment.services.openUrl = [](const QString&) { return true; };
    PreferencesHost host(bundle, environment);
    host.setPaneCreatedHandler([&executable](ComQuorviaNimbrelPref& pane) {
        pane.com().setProcessLookup([executable](const QString& identifier) -> qint64 {
            return identifier == kBackgroundAppIdentifier ? ourBackgroundApp(executable) : 0;
        });
        pane.com().setHandshakeTimeout(10000);
    });
    host.start();
    auto* status = host.window()->findChild<QLabel*>(s("statusLabel"));
    auto* button = host.window()->findChild<QPushButton*>(s("startButton"));
    ASSERT_TRUE(test::waitUntil([&host] { return host.isSelected(); }));
    EXPECT_EQ(status->text(), s("Nimbrel is stopped"));

    button->click();
    EXPECT_EQ(status->text(), s("Nimbrel is starting..."));
    ASSERT_TRUE(test::waitUntil([&] { return status->text() == s("Nimbrel is running"); }, 30000))
        << status->text().toStdString();
    EXPECT_EQ(button->text(), s("Stop Nimbrel"));
    const qint64 pid = ourBackgroundApp(executable);
    ASSERT_NE(pid, 0);

    auto* tabs = host.window()->findChild<QTabWidget*>(s("tabView"));
    tabs->setCurrentWidget(tabs->findChild<QWidget*>(s("log")));
    auto* log = host.window()->findChild<QPlainTextEdit*>(s("logTextView"));
    EXPECT_TRUE(test::waitUntil(
        [&] { return log->toPlainText().contains(s("Nimbrel serving protocol version 5")); }, 20000))
        << log->toPlainText().toStdString();

    button->click();
    EXPECT_TRUE(test::waitUntil([&] { return status->text() == s("Nimbrel is stopped"); }, 30000))
        << status->text().toStdString();
    EXPECT_TRUE(test::waitUntil([&] { return ourBackgroundApp(executable) == 0; }, 10000));
    if (const qint64 left = ourBackgroundApp(executable))
        ::kill(static_cast<pid_t>(left), SIGKILL);
    host.terminate();
}

} // namespace
} // namespace nimbrel

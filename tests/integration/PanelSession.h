#pragma once

// The real panel (nimbrel-preferences' host, offscreen) against the real background application on
// the test's private bus, with the test's own HOME. The update check reads a local, empty feed.

#include "PreferencesHost.h"
#include "platform/SettingsStore.h"
#include "platform/Strings.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLabel>
#include <QPushButton>
#include <QUrl>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>

namespace nimbrel::test {

// The Nimbrel of this test: the build tree's executable running with this test's HOME.
inline qint64 ourBackgroundApp(const QString& executable)
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

class PanelSession
{
public:
    explicit PanelSession(PaneEnvironment environment = PaneEnvironment()) : bundle(paneBundlePath())
    {
        const QString feed = makeTempDir() + s("/appcast.xml");
        QFile file(feed);
        if (file.open(QIODevice::WriteOnly))
            file.write(
                "<?xml version=\"1.0\"?><rss version=\"2.0\"><channel><title>N</title></channel></rss>");
        file.close();
        qputenv("NIMBREL_UPDATE_FEED", QUrl::fromLocalFile(feed).toString().toUtf8());
        SettingsStore(SettingsStore::domainPath(s("com.quorvia.Nimbrel"))).setValue(s("welcomed"), true);
        bundle.loadStringTable(kStringTable);
        executable = Bundle(bundle.resourcePath() + s("/Nimbrel.app")).executablePath();
        environment.services.openUrl = [](const QString&) { return true; };
        host = std::make_unique<PreferencesHost>(bundle, environment);
        host->setPaneCreatedHandler([this](ComQuorviaNimbrelPref& pane) {
            pane.com().setProcessLookup([this](const QString& identifier) -> qint64 {
                return identifier == kBackgroundAppIdentifier ? ourBackgroundApp(executable) : 0;
            });
            pane.com().setHandshakeTimeout(10000);
        });
        host->start();
    }

    ~PanelSession()
    {
        if (host && !host->hasEnded())
            host->terminate();
        if (const qint64 left = ourBackgroundApp(executable))
            ::kill(static_cast<pid_t>(left), SIGKILL);
    }

    template <class T> T* find(const char* name) const
    {
        return host->window()->findChild<T*>(QLatin1String(name));
    }
    QString status() const { return find<QLabel>("statusLabel")->text(); }
    // Starts the background application with the panel's own button and waits until it answers.
    bool startBackgroundApp()
    {
        if (!waitUntil([this] { return host->isSelected(); }))
            return false;
        find<QPushButton>("startButton")->click();
        return waitUntil([this] { return status() == s("Nimbrel is running"); }, 30000);
    }

    Bundle bundle;
    QString executable;
    std::unique_ptr<PreferencesHost> host;
};

} // namespace nimbrel::test

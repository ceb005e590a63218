#pragma once

// The real panel (nimbrel-preferences' host, offscreen) against the real background application on
// the test's private bus, with the test's own HOME. The update check reads a local, empty feed.

#include "PreferencesHost.h"
#include "platform/SettingsStore.h"
#include "platform/Strings.h"
#include "support/TestEnvironment.h"

#include <QLabel>
#include <QPushButton>
#include <QStandardPaths>
#include <csignal>
#include <gtest/gtest.h>
#include <memory>

namespace nimbrel::test {

// The Nimbrel of this test's HOME: the holder of its data folder's lock, while it is alive.
inline qint64 ourBackgroundApp()
{
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    const qint64 pid = readFile(data + s("/Nimbrel/Nimbrel.lock")).split('\n').value(0).toLongLong();
    const QByteArray status = readFile(s("/proc/%1/status").arg(pid));
    return pid > 0 && !status.isEmpty() && !status.contains("State:\tZ") ? pid : 0;
}

class PanelSession
{
public:
    explicit PanelSession(PaneEnvironment environment = PaneEnvironment()) : bundle(paneBundlePath())
    {
        // Update checks read a local feed, never the network; no welcome sheet.
        qputenv(
            "NIMBREL_UPDATE_FEED",
            writeFile(makeTempDir() + s("/appcast.xml"), "<rss version=\"2.0\"><channel/></rss>").toUtf8());
        SettingsStore(SettingsStore::domainPath(s("com.quorvia.Nimbrel"))).setValue(s("welcomed"), true);
        bundle.loadStringTable(kStringTable);
        environment.services.openUrl = [](const QString&) { return true; };
        host = std::make_unique<PreferencesHost>(bundle, environment);
        host->setPaneCreatedHandler([](ComQuorviaNimbrelPref& pane) {
            pane.com().setProcessLookup([](const QString& identifier) {
                return identifier == kBackgroundAppIdentifier ? ourBackgroundApp() : 0;
            });
            pane.com().setHandshakeTimeout(10000);
        });
        host->start();
    }

    ~PanelSession()
    {
        if (host && !host->hasEnded())
            host->terminate();
        if (const qint64 left = ourBackgroundApp())
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
    std::unique_ptr<PreferencesHost> host;
};

} // namespace nimbrel::test

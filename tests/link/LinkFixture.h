#pragma once

// NimbrelCom on a private bus against the fake background application, in virtual time, with a pane
// bundle holding both companions and a process table, launcher and terminator the test decides. The
// background application's executable, run with -sparkle, takes a moment and then leaves a mark, so a
// test can tell that the link waited for it.

#include "link/NimbrelCom.h"
#include "platform/PlistCodec.h"
#include "platform/VirtualRunLoop.h"
#include "support/FakeAppPeer.h"
#include "support/MockDelegate.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFileInfo>
#include <gtest/gtest.h>

namespace nimbrel::test {

inline QString makePaneBundle()
{
    const QString pane = makeTempDir() + s("/Nimbrel.prefPane");
    writePlist(pane + s("/Info.plist"), QVariantMap{{s("CFBundleIdentifier"), s("pane")}});
    makeAppBundle(pane + s("/Resources/Nimbrel.app"), kBackgroundAppIdentifier, s("Nimbrel"),
                  "#!/bin/sh\n[ \"$1\" = -sparkle ] && sleep 0.3 && touch \"$HOME/checked\"\n");
    makeAppBundle(pane + s("/Resources/NimbrelMenu.app"), kMenuBarAppIdentifier, s("NimbrelMenu"));
    return pane;
}

// A calendar row; with `calendars`, a source holding them.
inline QVariantMap calendar(const char* uid, const char* title, qint64 order = 0,
                            const QVariantList& calendars = {})
{
    QVariantMap result{{s("uid"), s(uid)}, {s("title"), s(title)}, {s("order"), order}};
    if (!calendars.isEmpty()) {
        result.insert(s("source"), true);
        result.insert(s("calendars"), calendars);
    }
    return result;
}

class LinkTest : public ::testing::Test
{
protected:
    LinkTest()
    {
        com.setProcessLookup([this](const QString& identifier) -> qint64 {
            asked << identifier;
            if (identifier == kBackgroundAppIdentifier)
                return backgroundRunning ? 4242 : 0;
            return menuRunning ? 4343 : 0;
        });
        com.setApplicationLauncher([this](const QString& path) {
            launched << QFileInfo(path).fileName();
            return true;
        });
        com.setApplicationTerminator([this](qint64 pid) { terminated << pid; });
        com.setHandshakeTimeout(300);
    }

    // Starts the peer and activates the link; what the delegate heard is dropped.
    void activate(bool running = true)
    {
        backgroundRunning = running;
        ASSERT_TRUE(peer.start());
        com.activate();
        delegate.take();
    }

    // The peer posts `name`; returns what the delegate heard once the link has handled it.
    QStringList deliver(const QString& name)
    {
        EXPECT_TRUE(peer.deliver(name));
        return delegate.take();
    }

    bool loginItem() { return com.startsAtLogin(com.backgroundAppPath()); }

    const QStringList kRefresh = MockDelegate::kRefresh;
    VirtualRunLoop loop;
    MockDelegate delegate;
    FakeAppPeer peer;
    bool backgroundRunning = true, menuRunning = false;
    QStringList asked, launched;
    QList<qint64> terminated;
    NimbrelCom com{&delegate, Bundle(makePaneBundle()), &loop};
};

} // namespace nimbrel::test

#pragma once

// A pane on the private bus of the test, in virtual time, with every outside service recorded instead
// of done: the fake background application answers the link, the process table is a map the test
// fills, and launches are written down.

#include "support/FakeAppPeer.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/Strings.h"
#include "platform/VirtualRunLoop.h"
#include "support/TestEnvironment.h"

#include <QAbstractButton>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QLineEdit>
#include <QMessageBox>
#include <QWidget>
#include <gtest/gtest.h>

namespace nimbrel::test {

struct Recorded
{
    QStringList urls, fetched, systemLog, quit, tools, launched, email;
    QStringList relaunch;
    int terminated = 0;
    int restarts = 0;
    QString restartError;
    PaneServices::ToolResult toolResult{true, 0, {}};
};

class PaneTest : public ::testing::Test
{
protected:
    PaneTest() : bundle(paneBundlePath())
    {
        bundle.loadStringTable(kStringTable);
        makePane(bundle);
    }

    ~PaneTest() override
    {
        if (pane)
            pane->didUnselect();
    }

    PaneServices recordingServices()
    {
        PaneServices services;
        Recorded* r = &recorded;
        services.runTool = [r](const QString& program, const QStringList& arguments) {
            r->tools << (QFileInfo(program).fileName() + u' ' + arguments.join(u' ')).trimmed();
            return r->toolResult;
        };
        services.systemLog = [r](const QString& text) { r->systemLog << text; };
        services.openUrl = [r](const QString& url) { return r->urls << url, true; };
        services.fetchUrl = [r](const QString& url) { r->fetched << url; };
        services.quitApplication = [r](const QString& identifier) { r->quit << identifier; };
        services.startRelaunchJob = [r](const QString& path, const QString& program) {
            r->relaunch << path << program;
            return true;
        };
        services.restartComputer = [r] { return ++r->restarts, r->restartError; };
        services.emailLogFiles = [r](const QString& folder, const QString& script, const QString& subject,
                                     const QString& filtered, bool system, const QString& mailto) {
            r->email = {folder,   QFileInfo(script).fileName(), subject,
                        filtered, system ? s("1") : s("0"),     mailto};
            return true;
        };
        services.terminateHost = [r] { ++r->terminated; };
        services.hostProgram = s("/opt/test/bin/nimbrel-preferences");
        services.nativeDialogs = false;
        return services;
    }

    void makePane(const Bundle& paneBundle)
    {
        pane.reset();
        window = std::make_unique<QWidget>();
        PaneEnvironment environment;
        environment.runLoop = &loop;
        environment.services = recordingServices();
        pane = std::make_unique<ComQuorviaNimbrelPref>(paneBundle, environment);
        pane->loadMainView(window.get());
        pane->awakeFromNib();
        pane->mainViewDidLoad();
        NimbrelCom& com = pane->com();
        com.setProcessLookup([this](const QString& identifier) { return running.value(identifier); });
        com.setApplicationLauncher(
            [this](const QString& path) { return recorded.launched << QFileInfo(path).fileName(), true; });
        com.setApplicationTerminator([](qint64) {});
        com.setHandshakeTimeout(10000); // the real value: a loaded machine must not fail the handshake
    }

    template <class T> T* find(const char* name) const
    {
        T* widget = window->findChild<T*>(QLatin1String(name));
        EXPECT_NE(widget, nullptr) << name;
        return widget;
    }

    // A background application that runs and answers.
    void runBackgroundApp()
    {
        ASSERT_TRUE(peer.isStarted() || peer.start());
        running.insert(kBackgroundAppIdentifier, 4242);
    }

    // ---- The calendar tabs ----------------------------------------------------------------------
    // The fake background application serves these lists (method → calendar dictionaries) and the
    // pane connects to it, fetching them.
    void connectWithLists(const QHash<QString, QVariantList>& lists)
    {
        for (auto it = lists.cbegin(); it != lists.cend(); ++it)
            peer.setListAnswer(it.key(), it.value());
        runBackgroundApp();
        pane->com().activate();
    }
    // Returns once every one-way request sent so far has reached the peer (the bus keeps their order).
    void flush() { pane->com().proxy()->version(); }
    int sent(const char* method)
    {
        flush();
        return peer.callCount(QLatin1String(method));
    }
    QVariantMap lastSent(const char* method)
    {
        flush();
        return peer.calls(QLatin1String(method))
            .value(peer.callCount(QLatin1String(method)) - 1)
            .arguments.value(0)
            .toMap();
    }
    // Types into a line edit as a user does, replacing what it holds.
    void type(const char* field, const QString& text)
    {
        auto* edit = find<QLineEdit>(field);
        edit->selectAll();
        edit->del();
        edit->insert(text);
    }
    void click(const char* button) { find<QAbstractButton>(button)->click(); }
    QMessageBox* openAlert() const
    {
        QMessageBox* open = nullptr;
        for (QMessageBox* box : window->findChildren<QMessageBox*>())
            open = box->isVisible() ? box : open;
        return open;
    }
    void answerAlert(int tag)
    {
        QMessageBox* alert = openAlert();
        ASSERT_NE(alert, nullptr);
        for (QAbstractButton* button : alert->buttons())
            if (button->property("tag").toInt() == tag)
                return button->click();
        FAIL() << "no button with tag " << tag;
    }

    static QString dataFile(const QString& relative)
    {
        const QString path = QDir(QString::fromLocal8Bit(qgetenv("XDG_DATA_HOME"))).filePath(relative);
        QDir().mkpath(QFileInfo(path).absolutePath());
        return path;
    }

    FakeAppPeer peer;
    VirtualRunLoop loop;
    Bundle bundle;
    Recorded recorded;
    QHash<QString, qint64> running;
    std::unique_ptr<QWidget> window;
    std::unique_ptr<ComQuorviaNimbrelPref> pane;
};

} // namespace nimbrel::test

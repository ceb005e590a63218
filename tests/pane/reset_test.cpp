// The reset tab: the sync history reset and its minute without the database button, the database
// reset in its three starting situations, and restoring a backup through the file dialog.

#include "PaneFixture.h"
#include "platform/SettingsStore.h"

#include <QFileDialog>
#include <QMessageBox>
#include <QProgressBar>
#include <QPushButton>

namespace nimbrel::test {
namespace {

class ResetTest : public PaneTest
{
protected:
    QPushButton* historyButton() { return find<QPushButton>("resetSyncHistoryButton"); }
    QPushButton* resetButton() { return find<QPushButton>("resetButton"); }
    QProgressBar* indicator() { return find<QProgressBar>("resetIndicator"); }
    // Presses the reset button and answers its alert with the button of this tag.
    void confirmReset(int tag)
    {
        resetButton()->click();
        answerAlert(tag);
    }
};

TEST_F(ResetTest, HistoryResetKeepsTheDatabaseButtonAwayForAMinute)
{
    runBackgroundApp();
    pane->com().activate();
    recorded.toolResult = {true, 3, {}};
    historyButton()->click();
    EXPECT_EQ(recorded.tools, QStringList{s("nimbrel-resetsync full")});
    EXPECT_EQ(recorded.systemLog, QStringList{s("nimbrel-resetsync returned error 3")});
    EXPECT_TRUE(historyButton()->isEnabled());
    EXPECT_FALSE(resetButton()->isEnabled());
    ASSERT_TRUE(peer.waitForCall(s("syncHistoryWasReset")));
    QStringList order;
    for (const RecordedCall& call : peer.calls())
        if (call.method.startsWith(s("syncHistory")) || call.method == s("log"))
            order << call.method +
                         (call.method == s("log") ? u' ' + call.arguments.value(0).toString() : QString());
    EXPECT_EQ(order, (QStringList{s("log Resetting Sync Services"), s("syncHistoryWillBeReset"),
                                  s("syncHistoryWasReset")}));
    EXPECT_TRUE(pane->com().sharedSettings().dateValue(s("lastResetDate")).has_value());

    loop.advance(59.9);
    EXPECT_FALSE(resetButton()->isEnabled());
    loop.advance(0.1);
    EXPECT_TRUE(resetButton()->isEnabled());

    // A tool that cannot start: nothing comes back, the reset is not recorded as done.
    recorded.toolResult = {false, -1, {}};
    peer.clearCalls();
    historyButton()->click();
    EXPECT_FALSE(historyButton()->isEnabled());
    EXPECT_FALSE(resetButton()->isEnabled());
    ASSERT_TRUE(peer.waitForCall(s("syncHistoryWillBeReset")));
    EXPECT_EQ(peer.callCount(s("syncHistoryWasReset")), 0);
}

TEST_F(ResetTest, CancellingTheAlertChangesNothing)
{
    confirmReset(kAlertAlternateReturn);
    EXPECT_TRUE(resetButton()->isEnabled());
    EXPECT_FALSE(isAnimating(indicator()));
    EXPECT_TRUE(recorded.launched.isEmpty());
}

TEST_F(ResetTest, StoppedWithoutDatabaseFinishesAtOnce)
{
    confirmReset(kAlertDefaultReturn);
    EXPECT_TRUE(recorded.launched.isEmpty()); // no start attempted
    EXPECT_TRUE(resetButton()->isEnabled());
    EXPECT_TRUE(historyButton()->isEnabled());
    EXPECT_FALSE(isAnimating(indicator()));
}

TEST_F(ResetTest, StoppedWithDatabaseStartsNimbrelAndResetsTwoSecondsAfterItAnswers)
{
    QFile(dataFile(s("Nimbrel/Nimbrel.nsql"))).open(QIODevice::WriteOnly);
    ASSERT_TRUE(peer.start());
    confirmReset(kAlertDefaultReturn);
    EXPECT_EQ(recorded.launched, QStringList{s("Nimbrel.app")});
    EXPECT_TRUE(pane->doingReset());
    EXPECT_FALSE(resetButton()->isEnabled());
    EXPECT_TRUE(isAnimating(indicator()));

    running.insert(kBackgroundAppIdentifier, 4242);
    pane->com().backgroundAppLaunched(); // "Nimbrel Running"
    EXPECT_FALSE(pane->doingReset());
    loop.advance(1.9);
    QCoreApplication::processEvents();
    EXPECT_EQ(peer.callCount(s("resetDatabase")), 0);
    loop.advance(0.1);
    ASSERT_TRUE(peer.waitForCall(s("resetDatabase")));
    pane->com().backgroundAppReset(); // "Nimbrel Reset"
    EXPECT_TRUE(resetButton()->isEnabled());
    EXPECT_FALSE(isAnimating(indicator()));
}

TEST_F(ResetTest, ARunningNimbrelResetsAtOnceAndAStateChangeWithoutAnswerForgetsTheReset)
{
    runBackgroundApp();
    pane->com().activate();
    QFile(dataFile(s("Nimbrel/Nimbrel.nsql"))).open(QIODevice::WriteOnly);
    confirmReset(kAlertDefaultReturn);
    ASSERT_TRUE(peer.waitForCall(s("resetDatabase")));
    EXPECT_TRUE(recorded.launched.isEmpty());

    // Waiting for a start that reports "not responding": no reset follows, the buttons stay away.
    pane->nimbrelResetFinished(true);
    running.clear();
    pane->com().backgroundAppTerminated();
    peer.clearCalls();
    confirmReset(kAlertDefaultReturn);
    EXPECT_TRUE(pane->doingReset());
    pane->nimbrelBackgroundAppStateChange(true, false);
    loop.advance(5.0);
    EXPECT_EQ(peer.callCount(s("resetDatabase")), 0);
    EXPECT_FALSE(resetButton()->isEnabled());
}

TEST_F(ResetTest, RestoreOpensTheChosenBackupWithItsApplication)
{
    pane->restoreFromBackupButton(nullptr);
    EXPECT_EQ(window->findChild<QFileDialog*>(), nullptr); // no Backup folder: nothing visible

    const QString backup = dataFile(s("Nimbrel/Backup/Home 2026-01-02 03.04.05.ics"));
    QFile(backup).open(QIODevice::WriteOnly);
    pane->restoreFromBackupButton(nullptr);
    auto* panel = window->findChild<QFileDialog*>();
    ASSERT_NE(panel, nullptr);
    EXPECT_TRUE(panel->isModal() || panel->windowModality() == Qt::WindowModal);
    EXPECT_EQ(QDir(panel->directory()).canonicalPath(), QFileInfo(backup).canonicalPath());
    EXPECT_TRUE(panel->nameFilters().join(u' ').contains(s("*.ics")));
    EXPECT_EQ(panel->fileMode(), QFileDialog::ExistingFile);
    panel->selectFile(backup);
    static_cast<QDialog*>(panel)->accept();
    EXPECT_EQ(recorded.urls, QStringList{QUrl::fromLocalFile(backup).toString()});

    recorded.urls.clear();
    pane->openPanelDidEnd(0, {QUrl::fromLocalFile(backup)});
    EXPECT_TRUE(recorded.urls.isEmpty());
}

} // namespace
} // namespace nimbrel::test

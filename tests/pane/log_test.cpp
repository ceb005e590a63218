// The log tab: the filtered log read in 4 096-byte chunks from where the view stopped, undecodable
// chunks skipped but counted, a log that shrank, the one-second chains, and mailing the logs.

#include "PaneFixture.h"
#include "logging/Log.h"

#include <QPlainTextEdit>
#include <QPushButton>
#include <QTabWidget>

namespace nimbrel::test {
namespace {

class LogTest : public PaneTest
{
protected:
    LogTest() { QDir().mkpath(QFileInfo(logPath()).absolutePath()); }
    static QString logPath() { return filteredLogFilePath(s("Nimbrel")); }
    static void write(const QByteArray& bytes, QIODevice::OpenMode mode = QIODevice::WriteOnly)
    {
        QFile file(logPath());
        ASSERT_TRUE(file.open(mode));
        file.write(bytes);
    }
    QTabWidget* tabs() { return find<QTabWidget>("tabView"); }
    void showTab(const char* identifier)
    {
        tabs()->setCurrentWidget(tabs()->findChild<QWidget*>(QLatin1String(identifier)));
    }
    std::string text() { return find<QPlainTextEdit>("logTextView")->toPlainText().toStdString(); }
    int timers() { return loop.pendingPerformCount(pane->performTarget()); }
};

TEST_F(LogTest, ReadsWhatWasAddedInChunksAndSkipsWhatDoesNotDecode)
{
    QByteArray lines;
    while (lines.size() < 8192)
        lines += "2026-01-02 03:04:05.678 - line\n";
    lines.truncate(8191);
    lines += '\n';
    write(lines);
    showTab("log");
    EXPECT_EQ(pane->logSize(), 8192u);
    EXPECT_EQ(text(), lines.toStdString());

    // One chunk of bytes that are neither UTF-8 nor ASCII, then a readable one.
    write(QByteArray(4096, '\xff') + "caf\xc3\xa9 ok\n", QIODevice::Append);
    loop.advance(1.0);
    EXPECT_EQ(pane->logSize(), 8192u + 4096u + 9u);
    EXPECT_EQ(text(), lines.toStdString() + "café ok\n"); // nothing of the undecodable chunk
}

TEST_F(LogTest, AShrunkLogShowsNothingNewUntilTheViewIsCleared)
{
    write("first line of a long log\nsecond line\n");
    showTab("log");
    write("Log cleared\n"); // emptied by the background application, shorter than what was read
    loop.advance(1.0);
    EXPECT_EQ(text(), "first line of a long log\nsecond line\n");
    pane->clearLogView();
    pane->updateLogView();
    EXPECT_EQ(text(), "Log cleared\n");
    EXPECT_EQ(pane->logSize(), 12u);
}

TEST_F(LogTest, PollingChainsRunOnlyWhileTheTabShows)
{
    showTab("reset");
    pane->updateLogView();
    EXPECT_EQ(timers(), 0); // not showing: no read, no timer
    showTab("log");
    EXPECT_EQ(timers(), 0); // no log file yet: no timer either
    write("hello\n");
    pane->didSelect();
    EXPECT_EQ(timers(), 1);
    EXPECT_EQ(text(), "hello\n");

    // Away and back within a second: a second chain, and both keep going without repeating text.
    showTab("google");
    showTab("log");
    EXPECT_EQ(timers(), 2);
    write("again\n", QIODevice::Append);
    loop.advance(3.0);
    EXPECT_EQ(timers(), 2);
    EXPECT_EQ(text(), "hello\nagain\n");

    // Hiding the pane stops the chain it references; leaving the tab stops the other one.
    pane->didUnselect();
    EXPECT_EQ(timers(), 1);
    showTab("publish");
    loop.advance(1.0);
    EXPECT_EQ(timers(), 0);
}

TEST_F(LogTest, EmailSendsTheSupportInfoFirstAndNamesTheSubject)
{
    runBackgroundApp();
    pane->com().activate();
    find<QPushButton>("emailButton")->click();
    EXPECT_EQ(peer.callCount(s("techSupportInfo")), 1); // synchronous: done before the logs are packed
    const QString folder = QFileInfo(logFilePath(s("Nimbrel"))).absolutePath();
    EXPECT_EQ(recorded.email,
              (QStringList{folder, s("EmailLogScript.sh"), s("Nimbrel Logs"), logPath(), s("1"),
                           bundle.objectForInfoDictionaryKey(s("LogsEMail")).toString()}));
    EXPECT_TRUE(find<QPushButton>("emailButton")->isEnabled());
    pane->emailButton(s("Calendar trouble"));
    EXPECT_EQ(recorded.email.value(2), s("Calendar trouble"));
    pane->emailButton(QVariant(42));
    EXPECT_EQ(recorded.email.value(2), s("Nimbrel Logs"));
}

} // namespace
} // namespace nimbrel::test

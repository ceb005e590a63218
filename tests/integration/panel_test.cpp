// The panel against the real background application on a private bus, with this test's own HOME:
// Start and Stop from the button reach the status line, and the log tab shows what Nimbrel wrote.

#include "PanelSession.h"

#include <QPlainTextEdit>
#include <QTabWidget>

namespace nimbrel::test {
namespace {

TEST(Panel, StartAndStopReachTheStatusLineAndTheLogTabShowsNimbrelsLines)
{
    PanelSession session;
    ASSERT_TRUE(waitUntil([&session] { return session.host->isSelected(); }));
    EXPECT_EQ(session.status(), s("Nimbrel is stopped"));
    auto* button = session.find<QPushButton>("startButton");
    button->click();
    EXPECT_EQ(session.status(), s("Nimbrel is starting..."));
    ASSERT_TRUE(waitUntil([&] { return session.status() == s("Nimbrel is running"); }, 30000))
        << session.status().toStdString();
    EXPECT_EQ(button->text(), s("Stop Nimbrel"));
    ASSERT_NE(ourBackgroundApp(), 0);

    auto* tabs = session.find<QTabWidget>("tabView");
    tabs->setCurrentWidget(tabs->findChild<QWidget*>(s("log")));
    auto* log = session.find<QPlainTextEdit>("logTextView");
    EXPECT_TRUE(waitUntil(
        [&] { return log->toPlainText().contains(s("Nimbrel serving protocol version 5")); }, 20000))
        << log->toPlainText().toStdString();

    button->click();
    EXPECT_TRUE(waitUntil([&] { return session.status() == s("Nimbrel is stopped"); }, 30000))
        << session.status().toStdString();
    EXPECT_TRUE(waitUntil([&] { return ourBackgroundApp() == 0; }, 10000));
}

} // namespace
} // namespace nimbrel::test

// The calendar tabs against the real background application: a calendar ticked in the publishing table
// reaches its database and comes back ticked when the panel fetches it again; a remote server added
// through the sheet appears in the outline and goes away after Disconnect.

#include "PanelSession.h"
#include "pane/CalendarItemModel.h"

#include <QDialog>
#include <QLineEdit>
#include <QProcess>
#include <QTabWidget>
#include <QTableView>
#include <QTest>
#include <QTreeView>

namespace nimbrel::test {
namespace {

QString database(const QString& sql)
{
    QProcess sqlite;
    sqlite.start(s("sqlite3"),
                 {QDir(qEnvironmentVariable("XDG_DATA_HOME")).filePath(s("Nimbrel/Nimbrel.nsql")), sql});
    sqlite.waitForFinished(10000);
    return QString::fromUtf8(sqlite.readAllStandardOutput()).trimmed();
}

TEST(CalendarTabs, ATickedCalendarIsStoredAndAServerComesAndGoes)
{
    PanelSession session;
    ASSERT_TRUE(session.startBackgroundApp()) << session.status().toStdString();
    ComQuorviaNimbrelPref& pane = *session.host->pane();

    // A new user has "Home" and "Work"; ticking "Home" asks for its options, OK publishes it.
    auto* table = session.find<QTableView>("publishTableView");
    auto* rows = static_cast<CalendarItemModel*>(table->model());
    ASSERT_TRUE(waitUntil([rows] { return rows->rowCount() == 2; }, 20000));
    const QModelIndex home = rows->match(rows->index(0, 0), Qt::DisplayRole, s("Home")).value(0);
    const QString uid = rows->calendarAt(home)->uid().toString();
    table->setFocus();
    table->setCurrentIndex(home);
    QTest::keyClick(table, Qt::Key_Space);
    auto* sheet = session.find<QDialog>("PublishOptionsSheet");
    ASSERT_TRUE(waitUntil([sheet] { return sheet->isVisible(); }));
    session.find<QPushButton>("publishOptionsOKButton")->click();
    EXPECT_TRUE(waitUntil([&] {
        return database(s("SELECT published_bonjour FROM calendars WHERE uid = '%1'").arg(uid)) == s("1");
    }));

    // Fetched afresh from the background application, the row is ticked.
    pane.didUnselect();
    EXPECT_EQ(rows->rowCount(), 0);
    pane.didSelect();
    ASSERT_TRUE(waitUntil([rows] { return rows->rowCount() == 2; }, 20000));
    EXPECT_EQ(rows->match(rows->index(0, 0), Qt::DisplayRole, s("Home")).value(0).data(Qt::CheckStateRole),
              Qt::Checked);

    // A remote server (on this computer, never contacted here), added and disconnected.
    auto* tabs = session.find<QTabWidget>("tabView");
    tabs->setCurrentWidget(tabs->findChild<QWidget*>(s("subscribe")));
    auto* outline = session.find<QTreeView>("subscribeOutlineView");
    session.find<QPushButton>("addServerButton")->click();
    for (const auto& [field, text] :
         {std::pair{"serverTitleField", "Office"}, std::pair{"serverURLField", "https://127.0.0.1:9/dav/"}})
        session.find<QLineEdit>(field)->insert(s(text));
    session.find<QPushButton>("serverSettingsOKButton")->click();
    ASSERT_TRUE(waitUntil([outline] { return outline->model()->rowCount() == 1; }, 20000));
    EXPECT_EQ(outline->model()->index(0, 0).data(), s("Office"));
    pane.setSelectionIndexPath({0});
    session.find<QPushButton>("addServerButton")->click(); // now "Edit Remote Server..."
    EXPECT_EQ(session.find<QLineEdit>("serverURLField")->text(), s("https://127.0.0.1:9/dav/"));
    session.find<QPushButton>("serverDisconnectButton")->click();
    EXPECT_TRUE(waitUntil([outline] { return outline->model()->rowCount() == 0; }, 20000));
    EXPECT_EQ(database(s("SELECT count(*) FROM sources")), s("0"));
}

} // namespace
} // namespace nimbrel::test

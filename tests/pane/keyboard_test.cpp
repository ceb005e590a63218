// The calendar tabs without a mouse: Tab reaches every control of each tab and each sheet, and a
// screen reader finds a name for every control and for the checkbox cells of the tables.

#include "PaneFixture.h"

#include <QAbstractItemView>
#include <QAccessible>
#include <QApplication>
#include <QComboBox>
#include <QProgressBar>
#include <QRadioButton>
#include <QRegularExpression>
#include <QTabBar>
#include <QTabWidget>
#include <QTest>

namespace nimbrel::test {
namespace {

QString nameOf(QObject* object)
{
    QAccessibleInterface* accessible = QAccessible::queryAccessibleInterface(object);
    return accessible ? accessible->text(QAccessible::Name) : QString();
}

class KeyboardTest : public PaneTest
{
protected:
    // Whether Tab should stop at a widget. In a group of radio buttons Tab stops at the chosen one, the
    // arrows move within.
    static bool tabStop(const QWidget* widget)
    {
        const auto* radio = qobject_cast<const QRadioButton*>(widget);
        return widget->isVisible() && widget->isEnabled() && widget->focusPolicy() & Qt::TabFocus &&
               !(radio && !radio->isChecked());
    }
    // Every control below `root` has a name; pressing Tab from `start` once per stop of its window
    // reaches each one that takes focus (no control swallows presses of its own).
    void checkControls(QWidget* root, QWidget* start)
    {
        QApplication::setActiveWindow(start->window());
        start->setFocus(Qt::TabFocusReason);
        QSet<QWidget*> reached;
        const QList<QWidget*> all = start->window()->findChildren<QWidget*>();
        const auto stops = std::count_if(all.begin(), all.end(), tabStop);
        for (qsizetype i = 0; i < stops && QApplication::focusWidget(); ++i) {
            reached.insert(QApplication::focusWidget());
            QTest::keyClick(QApplication::focusWidget(), Qt::Key_Tab);
        }
        for (QWidget* control : root->findChildren<QWidget*>()) {
            const bool isControl = qobject_cast<QAbstractButton*>(control) ||
                                   qobject_cast<QLineEdit*>(control) || qobject_cast<QComboBox*>(control) ||
                                   qobject_cast<QAbstractItemView*>(control) ||
                                   qobject_cast<QProgressBar*>(control);
            if (!isControl || control->objectName().isEmpty()) // parts Qt makes itself (headers, corners)
                continue;
            // A name in words: "?" on a help button says nothing.
            EXPECT_TRUE(nameOf(control).contains(QRegularExpression(s("\\w\\w"))))
                << qPrintable(control->objectName());
            if (tabStop(control))
                EXPECT_TRUE(reached.contains(control)) << qPrintable(control->objectName());
        }
    }
};

TEST_F(KeyboardTest, TabReachesAndAScreenReaderNamesEveryControl)
{
    connectWithLists(
        {{s("calendarsPublishableViaBonjour"),
          {QVariantMap{{s("uid"), s("f")}, {s("title"), s("Family")}, {s("subscribable"), true}}}},
         {s("sourceListOfBonjourCalendars"),
          {QVariantMap{{s("source"), true},
                       {s("title"), s("Office")},
                       {s("remoteURL"), s("https://dav.example.org/")},
                       {s("calendars"),
                        QVariantList{QVariantMap{
                            {s("uid"), s("t")}, {s("title"), s("Team")}, {s("subscribable"), true}}}}}}}});
    window->resize(668, 560);
    window->show();
    QApplication::setActiveWindow(window.get());
    auto* tabs = find<QTabWidget>("tabView");
    for (const char* name : {"publish", "subscribe", "google"}) {
        tabs->setCurrentWidget(tabs->findChild<QWidget*>(QLatin1String(name)));
        auto* view = tabs->currentWidget()->findChild<QAbstractItemView*>();
        view->setCurrentIndex(view->model()->index(0, 0));
        checkControls(tabs->currentWidget(), tabs->tabBar());
    }
    // The checkbox cells: named by their calendar, and checkable.
    for (const char* name : {"publishTableView", "subscribeOutlineView"}) {
        QAccessibleTableInterface* table =
            QAccessible::queryAccessibleInterface(find<QWidget>(name))->tableInterface();
        QAccessibleInterface* cell = table->cellAt(name[0] == 'p' ? 0 : 1, 0);
        EXPECT_FALSE(cell->text(QAccessible::Name).isEmpty()) << name;
        EXPECT_TRUE(cell->state().checkable) << name;
    }

    // The sheets, each opened as a user opens it.
    const std::function<void()> openers[] = {
        [this] {
            pane->publishingCalendar({{s("title"), s("Family")}});
        },
        [this] { click("networkSettingsButton"), click("fixedPortButton"); },
        [this] {
            pane->subscribeToCalendar({{s("title"), s("Team")}});
        },
        [this] {
            pane->editServerSettings({{s("uid"), s("o")}, {s("remoteURL"), s("https://dav.example.org/")}});
        },
        [this] { pane->googleOptionsButton(nullptr), type("googleLoginField", s("ann@example.com")); }};
    for (const auto& open : openers) {
        open();
        QDialog* sheet = nullptr;
        for (QDialog* dialog : window->findChildren<QDialog*>())
            sheet = dialog->isVisible() ? dialog : sheet;
        ASSERT_NE(sheet, nullptr);
        QWidget* first = sheet->nextInFocusChain();
        while (!tabStop(first))
            first = first->nextInFocusChain();
        checkControls(sheet, first);
        sheet->reject();
    }
}

} // namespace
} // namespace nimbrel::test

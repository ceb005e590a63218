#pragma once

// The tray's menu: the state line, Start/Stop, "Open Nimbrel Preferences…" and Quit, kept in step with
// the controller.

#include <QMenu>

namespace nimbrel {

class MenuBarController;

class MenuBarMenu : public QMenu
{
    Q_OBJECT
public:
    explicit MenuBarMenu(MenuBarController* controller, QWidget* parent = nullptr);

    QAction* statusAction() const { return m_status; }
    QAction* startStopAction() const { return m_startStop; }
    QAction* preferencesAction() const { return m_preferences; }
    QAction* quitAction() const { return m_quit; }

    // Re-reads every text and enabled state (also done before the menu opens, since the control panel
    // may have been installed or removed meanwhile).
    void refresh();

signals:
    void quitRequested();

private:
    MenuBarController* m_controller;
    QAction* m_status;
    QAction* m_startStop;
    QAction* m_preferences;
    QAction* m_quit;
};

} // namespace nimbrel

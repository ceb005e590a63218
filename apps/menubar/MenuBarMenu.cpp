#include "MenuBarMenu.h"

#include "MenuBarController.h"

namespace nimbrel {

MenuBarMenu::MenuBarMenu(MenuBarController* controller, QWidget* parent)
    : QMenu(parent), m_controller(controller)
{
    m_status = addAction(QString());
    m_status->setEnabled(false); // a line of information, not a command
    addSeparator();
    m_startStop = addAction(QString());
    m_preferences = addAction(menuText("Open Nimbrel Preferences…"));
    addSeparator();
    m_quit = addAction(menuText("Quit"));
    m_quit->setMenuRole(QAction::QuitRole);

    connect(m_startStop, &QAction::triggered, m_controller, &MenuBarController::toggleBackgroundApp);
    connect(m_preferences, &QAction::triggered, m_controller, [this] { m_controller->openPreferences(); });
    connect(m_quit, &QAction::triggered, this, &MenuBarMenu::quitRequested);
    connect(m_controller, &MenuBarController::changed, this, &MenuBarMenu::refresh);
    connect(this, &QMenu::aboutToShow, this, &MenuBarMenu::refresh);
    refresh();
}

void MenuBarMenu::refresh()
{
    m_status->setText(m_controller->statusText());
    m_startStop->setText(m_controller->startStopText());
    m_startStop->setEnabled(m_controller->startStopEnabled());
    m_preferences->setEnabled(m_controller->preferencesEnabled());
}

} // namespace nimbrel

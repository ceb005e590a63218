#include "MenuBarController.h"

#include <QCoreApplication>

namespace nimbrel {

QString menuText(const char* sourceText)
{
    return QCoreApplication::translate("NimbrelMenu", sourceText);
}

MenuBarController::MenuBarController(MenuBarCommands commands, QObject* parent)
    : QObject(parent), m_commands(std::move(commands))
{
}

QString MenuBarController::statusText() const
{
    switch (m_state) {
    case BackgroundAppState::Checking:
        return menuText("Checking…");
    case BackgroundAppState::Stopped:
        return menuText("Nimbrel is stopped");
    case BackgroundAppState::Starting:
        return menuText("Nimbrel is starting…");
    case BackgroundAppState::Stopping:
        return menuText("Nimbrel is stopping…");
    case BackgroundAppState::Running:
        return menuText("Nimbrel is running");
    case BackgroundAppState::NotResponding:
        return menuText("Nimbrel is not responding");
    }
    return {};
}

QString MenuBarController::toolTip() const
{
    // The tray shows the tooltip without any other context, so it names the product first.
    return menuText("Nimbrel") + QLatin1Char('\n') + statusText();
}

QString MenuBarController::iconName(BackgroundAppState state)
{
    switch (state) {
    case BackgroundAppState::Running:
        return QStringLiteral("x-office-calendar");
    case BackgroundAppState::Stopped:
        return QStringLiteral("appointment-missed");
    case BackgroundAppState::NotResponding:
        return QStringLiteral("dialog-warning");
    case BackgroundAppState::Checking:
    case BackgroundAppState::Starting:
    case BackgroundAppState::Stopping:
        return QStringLiteral("appointment-soon");
    }
    return {};
}

QString MenuBarController::startStopText() const
{
    return m_running ? menuText("Stop Nimbrel") : menuText("Start Nimbrel");
}

bool MenuBarController::startStopEnabled() const
{
    return m_state != BackgroundAppState::Checking && m_state != BackgroundAppState::Starting &&
           m_state != BackgroundAppState::Stopping;
}

bool MenuBarController::preferencesEnabled() const
{
    return m_commands.preferencesAvailable && m_commands.preferencesAvailable();
}

void MenuBarController::toggleBackgroundApp()
{
    if (!startStopEnabled())
        return;
    const bool wanted = !m_running;
    // The transient state goes first: the answer may come before setBackgroundAppRunning returns.
    update(wanted ? BackgroundAppState::Starting : BackgroundAppState::Stopping, m_running);
    if (m_commands.setBackgroundAppRunning)
        m_commands.setBackgroundAppRunning(wanted);
}

bool MenuBarController::openPreferences()
{
    if (!preferencesEnabled() || !m_commands.openPreferences)
        return false;
    return m_commands.openPreferences();
}

void MenuBarController::backgroundAppStateChange(bool running, bool responding)
{
    const BackgroundAppState state = !responding ? BackgroundAppState::NotResponding
                                     : running   ? BackgroundAppState::Running
                                                 : BackgroundAppState::Stopped;
    update(state, running);
}

void MenuBarController::update(BackgroundAppState state, bool running)
{
    if (state == m_state && running == m_running)
        return;
    m_state = state;
    m_running = running;
    emit changed();
}

} // namespace nimbrel

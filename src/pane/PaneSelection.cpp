// ComQuorviaNimbrelPref: what happens each time the panel is shown and hidden.

#include "pane/ComQuorviaNimbrelPref.h"

namespace nimbrel {

void ComQuorviaNimbrelPref::didSelect()
{
    // 1. A replaced bundle: the host is on its way out.
    if (manuallyInstalled())
        return;
    // 2–3.
    m_com->activate();
    bool suppressWelcome = false;
    const bool firstLaunch = m_com->firstLaunch(&suppressWelcome);
    bool launchBackground = m_com->launchBackgroundAppAtStartup();
    const bool backgroundRunning = m_com->backgroundAppRunning();
    const bool backgroundResponsive = m_com->backgroundAppResponsive();
    bool launchMenuBar = m_com->launchMenuBarAppAtStartup();
    const bool menuBarRunning = m_com->menuBarAppRunning();
    // 4.
    setStatus(!backgroundResponsive ? StatusNotResponding
              : backgroundRunning   ? StatusRunning
                                    : StatusStopped);
    // 5.
    updateNetworkSettings(m_com->bonjourInfo());
    // 6. A first launch starts both companions and greets the user.
    if (firstLaunch) {
        launchBackground = true;
        launchMenuBar = true;
        if (!suppressWelcome)
            showWelcomeSheet();
    }
    // 7.
    checkUpdatedMultiuserSystem(firstLaunch);
    // 8–9.
    if (!backgroundRunning && launchBackground)
        startButton(nullptr);
    if (!menuBarRunning && launchMenuBar)
        m_com->setMenuBarAppRunning(true);
    // 10.
    setMenuBarStatus();
    clearLogView();
    updateLogView();
}

void ComQuorviaNimbrelPref::didUnselect()
{
    m_com->deactivate();
    cancelLogTimer();
}

} // namespace nimbrel

#pragma once

// The tray companion's logic, free of the tray icon itself: the background application's state as the
// watch reports it (plus "starting"/"stopping" between a click and the answer) and the texts, icon name
// and actions that follow from it.

#include <QObject>
#include <QString>
#include <functional>

namespace nimbrel {

// A text of the tray, looked up in the translation context "NimbrelMenu" (English source text).
QString menuText(const char* sourceText);

enum class BackgroundAppState
{
    Checking,      // before the first answer
    Stopped,       // running false, responding true
    Starting,      // Start clicked, no answer yet
    Stopping,      // Stop clicked, no answer yet
    Running,       // running and responding
    NotResponding, // responding false, whatever the running flag says
};

// What the controller asks of the outside world; tests pass recorders instead of the watch and a launcher.
struct MenuBarCommands
{
    std::function<void(bool wanted)> setBackgroundAppRunning; // the answer comes back as a state change
    std::function<bool()> preferencesAvailable;               // is the control panel installed?
    std::function<bool()> openPreferences;                    // false when it could not be started
};

class MenuBarController : public QObject
{
    Q_OBJECT
public:
    explicit MenuBarController(MenuBarCommands commands, QObject* parent = nullptr);

    BackgroundAppState state() const { return m_state; }
    // The running flag as last reported; decides between Start and Stop.
    bool backgroundAppRunning() const { return m_running; }

    QString statusText() const;
    QString toolTip() const;
    // Freedesktop icon name for the current state (the shell draws a fallback when the theme lacks it).
    QString iconName() const { return iconName(m_state); }
    static QString iconName(BackgroundAppState state);

    QString startStopText() const;
    // Off while the state is unknown or a request is under way: a second click would only repeat it.
    bool startStopEnabled() const;
    bool preferencesEnabled() const;

    // The Start/Stop action: asks for the opposite of the last reported running flag.
    void toggleBackgroundApp();
    // "Open Nimbrel Preferences…"; false when the control panel is missing or did not start.
    bool openPreferences();

    // The (running, responding) pair the watch settled on.
    void backgroundAppStateChange(bool running, bool responding);

signals:
    // The state or the running flag changed: texts, icon and actions may read differently.
    void changed();

private:
    void update(BackgroundAppState state, bool running);

    MenuBarCommands m_commands;
    BackgroundAppState m_state = BackgroundAppState::Checking;
    bool m_running = false;
};

} // namespace nimbrel

#pragma once

// The host of the pane: one window holding the pane's view, and the window's events turned into the
// pane's lifecycle. First show and restore from minimised select the pane; hide and minimise unselect
// it; closing the window unselects it, destroys it and ends the program. As a settings application
// does, the pane is selected once its view has been displayed: the window paints at once, and the
// pane's first talk with the background application (which may fetch thousands of calendars) follows.

#include "pane/ComQuorviaNimbrelPref.h"

#include <QObject>
#include <functional>
#include <memory>

class QWidget;

namespace nimbrel {

class PreferencesHost : public QObject
{
    Q_OBJECT
public:
    explicit PreferencesHost(const Bundle& bundle, PaneEnvironment environment = PaneEnvironment());
    ~PreferencesHost() override;

    // Runs right after the pane is created, before its view loads and it is first selected (tests and
    // the screenshot tool replace the pane's process lookup and launcher here).
    void setPaneCreatedHandler(std::function<void(ComQuorviaNimbrelPref&)> handler)
    {
        m_paneCreated = std::move(handler);
    }
    // Creates the pane (initWithBundle:), loads its view, awakeFromNib, mainViewDidLoad, shows the window.
    void start();
    QWidget* window() const { return m_window.get(); }
    ComQuorviaNimbrelPref* pane() const { return m_pane.get(); }
    bool isSelected() const { return m_selected; }
    bool hasEnded() const { return m_ended; }

    // Brings the window to the front (a second start of the program asks for this).
    void activate();
    // The host's "terminate": unselect, destroy the pane, leave the event loop.
    void terminate();

signals:
    void firstPaint();
    void selected();

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void select();
    void unselect();
    void selectSoon();

    Bundle m_bundle;
    PaneEnvironment m_environment;
    std::unique_ptr<QWidget> m_window;
    std::unique_ptr<ComQuorviaNimbrelPref> m_pane;
    QWidget* m_view = nullptr;
    bool m_selected = false;
    bool m_ended = false;
    bool m_painted = false;
    bool m_selectPending = false;
    std::function<void(ComQuorviaNimbrelPref&)> m_paneCreated;
};

} // namespace nimbrel

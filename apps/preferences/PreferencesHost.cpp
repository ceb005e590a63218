#include "PreferencesHost.h"

#include "pane/PaneIcon.h"
#include "platform/Strings.h"

#include <QCoreApplication>
#include <QEvent>
#include <QTimer>
#include <QVBoxLayout>
#include <QWidget>
#include <QWindowStateChangeEvent>

namespace nimbrel {

PreferencesHost::PreferencesHost(const Bundle& bundle, PaneEnvironment environment)
    : m_bundle(bundle), m_environment(std::move(environment))
{
    // The pane's "terminate the host" never runs inside the pane's own call.
    m_environment.services.terminateHost = [this] {
        QMetaObject::invokeMethod(this, &PreferencesHost::terminate, Qt::QueuedConnection);
    };
}

PreferencesHost::~PreferencesHost()
{
    if (m_window)
        m_window->removeEventFilter(this);
    if (m_pane && m_selected)
        m_pane->didUnselect();
    m_pane.reset();
}

void PreferencesHost::start()
{
    m_window = std::make_unique<QWidget>();
    m_window->setObjectName(QStringLiteral("NimbrelPreferences"));
    m_window->setWindowTitle(localizedString(QStringLiteral("Nimbrel Preferences")));
    m_window->setWindowIcon(paneIcon());
    auto* layout = new QVBoxLayout(m_window.get());
    layout->setContentsMargins(0, 0, 0, 0);

    m_pane = std::make_unique<ComQuorviaNimbrelPref>(m_bundle, m_environment);
    if (m_paneCreated)
        m_paneCreated(*m_pane);
    m_view = m_pane->loadMainView(m_window.get());
    layout->addWidget(m_view);
    m_window->resize(m_window->sizeHint().expandedTo(QSize(600, 520)));
    m_pane->awakeFromNib();
    m_pane->mainViewDidLoad();

    m_window->installEventFilter(this);
    m_view->installEventFilter(this);
    m_window->show();
}

void PreferencesHost::select()
{
    const bool pending = std::exchange(m_selectPending, false);
    if (!pending || m_selected || m_ended || !m_pane || !m_window->isVisible() || m_window->isMinimized())
        return;
    m_selected = true;
    m_pane->didSelect();
    emit selected();
}

void PreferencesHost::selectSoon()
{
    if (m_selected || m_selectPending)
        return;
    // After the next paint of the view; a window that is never painted (hidden behind others on some
    // desktops) is selected a moment later all the same.
    m_selectPending = true;
    QTimer::singleShot(250, this, &PreferencesHost::select);
}

void PreferencesHost::unselect()
{
    m_selectPending = false;
    if (!m_selected || !m_pane)
        return;
    m_selected = false;
    m_pane->didUnselect();
}

void PreferencesHost::activate()
{
    if (!m_window || m_ended)
        return;
    if (m_window->isMinimized())
        m_window->showNormal();
    else
        m_window->show();
    m_window->raise();
    m_window->activateWindow();
}

void PreferencesHost::terminate()
{
    if (m_ended)
        return;
    m_ended = true;
    m_selectPending = false;
    if (m_pane && m_selected)
        m_pane->didUnselect();
    m_selected = false;
    // The pane's widgets belong to the window; the pane itself (its link, its timers) goes now.
    m_pane.reset();
    if (m_window)
        m_window->hide();
    QMetaObject::invokeMethod(QCoreApplication::instance(), &QCoreApplication::quit, Qt::QueuedConnection);
}

bool PreferencesHost::eventFilter(QObject* watched, QEvent* event)
{
    if (watched == m_view) {
        if (event->type() == QEvent::Paint) {
            if (!m_painted) {
                m_painted = true;
                QMetaObject::invokeMethod(this, &PreferencesHost::firstPaint, Qt::QueuedConnection);
            }
            if (m_selectPending)
                QMetaObject::invokeMethod(this, &PreferencesHost::select, Qt::QueuedConnection);
        }
        return false;
    }
    if (watched != m_window.get())
        return false;
    switch (event->type()) {
    case QEvent::Show:
        if (!m_window->isMinimized())
            selectSoon();
        break;
    case QEvent::Hide:
        unselect();
        break;
    case QEvent::WindowStateChange:
        if (m_window->isMinimized())
            unselect();
        else if (static_cast<QWindowStateChangeEvent*>(event)->oldState() & Qt::WindowMinimized &&
                 m_window->isVisible())
            selectSoon();
        break;
    case QEvent::Close:
        event->accept();
        terminate();
        return true;
    default:
        break;
    }
    return false;
}

} // namespace nimbrel

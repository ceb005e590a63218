// ComQuorviaNimbrelPref: the background application's status line and Start/Stop button, the update
// check and menu-bar settings, help and web links, and the link's state callbacks.

#include "cells/ClickableTextField.h"
#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/Strings.h"
#include "platform/SystemVersion.h"

#include <QCheckBox>
#include <QDir>
#include <QLabel>
#include <QLocale>
#include <QProgressBar>
#include <QPushButton>
#include <QTimeZone>

namespace nimbrel {

namespace {

const QStringList kStatusKeys{QStringLiteral("startButtonName"), QStringLiteral("statusMessage"),
                              QStringLiteral("isRunning")};

} // namespace

QString ComQuorviaNimbrelPref::statusMessage() const
{
    switch (m_backgroundAppStatus) {
    case StatusStopped:
        return localizedString(QStringLiteral("Nimbrel is stopped"));
    case StatusStarting:
        return localizedString(QStringLiteral("Nimbrel is starting..."));
    case StatusStopping:
        return localizedString(QStringLiteral("Nimbrel is stopping..."));
    case StatusRunning:
        return localizedString(QStringLiteral("Nimbrel is running"));
    case StatusNotResponding:
        return localizedString(QStringLiteral("Nimbrel is not responding"));
    case StatusVersionError:
        return localizedString(QStringLiteral("Nimbrel version error"));
    default:
        return localizedString(QStringLiteral("Checking..."));
    }
}

QString ComQuorviaNimbrelPref::startButtonName() const
{
    // Asks the link, not the stored status.
    return localizedString(m_com->backgroundAppRunning() ? QStringLiteral("Stop Nimbrel")
                                                         : QStringLiteral("Start Nimbrel"));
}

bool ComQuorviaNimbrelPref::isRunning() const
{
    return m_backgroundAppStatus == StatusRunning;
}

QString ComQuorviaNimbrelPref::versionString() const
{
    return localizedFormat(
        QStringLiteral("Nimbrel version %@"),
        {m_bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleShortVersionString")).toString()});
}

bool ComQuorviaNimbrelPref::displayMenuBar() const
{
    return m_com->menuBarAppRunning();
}

void ComQuorviaNimbrelPref::setDisplayMenuBar(bool display)
{
    // A bound setter announces its own key, as every binding expects.
    willChangeValueForKey(QStringLiteral("displayMenuBar"));
    m_com->setMenuBarAppRunning(display);
    didChangeValueForKey(QStringLiteral("displayMenuBar"));
}

bool ComQuorviaNimbrelPref::checkForUpdates() const
{
    return m_com->autoCheckForUpdates();
}

void ComQuorviaNimbrelPref::setCheckForUpdates(bool check)
{
    willChangeValueForKey(QStringLiteral("checkForUpdates"));
    m_com->setAutoCheckForUpdates(check);
    didChangeValueForKey(QStringLiteral("checkForUpdates"));
}

QDateTime ComQuorviaNimbrelPref::lastCheckedDate() const
{
    return m_com->lastUpdateCheckTime();
}

QString ComQuorviaNimbrelPref::lastCheckedDateText() const
{
    // Long date, no time, in the user's locale and time zone. The link answers the reference date
    // (2001-01-01) when no check ever ran: a date the user would take for a real one.
    const QDateTime date = lastCheckedDate();
    if (date <= QDateTime(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC))
        return localizedString(QStringLiteral("Never"));
    return QLocale().toString(date.toLocalTime().date(), QLocale::LongFormat);
}

bool ComQuorviaNimbrelPref::isLeopardOrLater()
{
    return getSystemVersion() > kSystemVersion10_5OrLater;
}

void ComQuorviaNimbrelPref::setStatus(long code)
{
    if (code == m_backgroundAppStatus)
        return;
    for (const QString& key : kStatusKeys)
        willChangeValueForKey(key);
    // A version error stays for the pane's life.
    if (m_backgroundAppStatus != StatusVersionError)
        m_backgroundAppStatus = code;
    if (m_autoUpdateCheckbox)
        m_autoUpdateCheckbox->setEnabled(code == StatusRunning);
    for (const QString& key : kStatusKeys)
        didChangeValueForKey(key);
}

void ComQuorviaNimbrelPref::setMenuBarStatus()
{
    willChangeValueForKey(QStringLiteral("displayMenuBar"));
    didChangeValueForKey(QStringLiteral("displayMenuBar"));
}

void ComQuorviaNimbrelPref::startButton(QObject* sender)
{
    Q_UNUSED(sender);
    const bool running = m_com->backgroundAppRunning();
    setEnabledIfLoaded(m_startButton, false);
    setStatus(running ? StatusStopping : StatusStarting);
    m_com->setBackgroundAppRunning(!running);
    startAnimation(m_startIndicator);
}

void ComQuorviaNimbrelPref::checkButton(QObject* sender)
{
    Q_UNUSED(sender);
    setEnabledIfLoaded(m_checkButton, false);
    startAnimation(m_checkIndicator);
    m_com->checkForUpdate();
}

QString ComQuorviaNimbrelPref::helpUrl(int tag) const
{
    static const char* const anchors[] = {"", "#firewall", "#remote-sub", "#google", "#reset", "#log"};
    const QString anchor = QLatin1String(tag >= 1 && tag <= 5 ? anchors[tag] : anchors[0]);
    const QString guide = m_bundle.objectForInfoDictionaryKey(QStringLiteral("UserGuideURL")).toString();
    // A relative address names the guide inside the bundle's Resources.
    if (QUrl(guide).isRelative() && !guide.startsWith(QLatin1Char('/')))
        return QUrl::fromLocalFile(QDir(m_bundle.resourcePath()).filePath(guide)).toString() + anchor;
    if (guide.startsWith(QLatin1Char('/')))
        return QUrl::fromLocalFile(guide).toString() + anchor;
    return guide + anchor;
}

void ComQuorviaNimbrelPref::helpButton(QObject* sender)
{
    m_services.openUrl(helpUrl(tagOf(sender)));
}

void ComQuorviaNimbrelPref::webURL(ClickableTextField* sender)
{
    m_services.openUrl(QStringLiteral("http://") + (sender ? sender->stringValue() : QString()));
}

// ---- State callbacks of the link -------------------------------------------------------------------

void ComQuorviaNimbrelPref::nimbrelBackgroundAppStateChange(bool running, bool responding)
{
    setEnabledIfLoaded(m_startButton, true);
    setStatus(!responding ? StatusNotResponding : running ? StatusRunning : StatusStopped);
    stopAnimation(m_startIndicator);
    if (running) {
        clearLogView();
        updateLogView();
    }
    if (m_doingReset && running && responding)
        performAfterDelay("doReset", 2.0, &ComQuorviaNimbrelPref::doReset);
    m_doingReset = false;
}

void ComQuorviaNimbrelPref::nimbrelProtocolVersionError()
{
    setStatus(StatusVersionError);
}

void ComQuorviaNimbrelPref::nimbrelCheckedForUpdate()
{
    setEnabledIfLoaded(m_checkButton, true);
    stopAnimation(m_checkIndicator);
    willChangeValueForKey(QStringLiteral("lastCheckedDate"));
    didChangeValueForKey(QStringLiteral("lastCheckedDate"));
}

} // namespace nimbrel

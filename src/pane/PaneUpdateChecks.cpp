// ComQuorviaNimbrelPref: the two checks made each time the panel is shown — a pane bundle replaced on
// disk while this one runs, and the restart advice after an update on a computer several users share.

#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"
#include "platform/Strings.h"

#include <QDir>

namespace nimbrel {

namespace {

const QString kVersionKey = QStringLiteral("CFBundleShortVersionString");

// A pane installed for every user lies outside the user's home folder (/usr/lib/nimbrel/…).
bool installedForAllUsers(const QString& bundlePath)
{
    const QString home = QDir::cleanPath(QDir::homePath()) + QLatin1Char('/');
    return !QDir::cleanPath(bundlePath).startsWith(home);
}

} // namespace

QString ComQuorviaNimbrelPref::hostDefaultsPath()
{
    return SettingsStore::domainPath(QStringLiteral("com.quorvia.NimbrelPref"));
}

bool ComQuorviaNimbrelPref::manuallyInstalled()
{
    // The Info.plist beside the Resources folder, read afresh.
    const QString onDisk = QDir(m_bundle.resourcePath()).filePath(QStringLiteral("../Info.plist"));
    QString diskVersion;
    if (const std::optional<QVariant> info = plist::readFile(QDir::cleanPath(onDisk)))
        diskVersion = info->toMap().value(kVersionKey).toString();
    if (m_bundle.objectForInfoDictionaryKey(kVersionKey).toString() == diskVersion)
        return false;

    // Both companions are asked to quit and waited for, a job starts the host again once it has gone,
    // and the host is asked to end.
    m_services.quitApplication(m_com->backgroundAppIdentifier());
    m_services.quitApplication(m_com->menuBarAppIdentifier());
    if (!m_services.startRelaunchJob(m_bundle.bundlePath(), m_services.hostProgram))
        m_services.systemLog(QStringLiteral("manuallyInstalled: the relaunch job could not be started"));
    m_services.terminateHost();
    return true;
}

void ComQuorviaNimbrelPref::checkUpdatedMultiuserSystem(bool firstLaunch)
{
    const QString key = m_com->backgroundAppIdentifier() + QStringLiteral(".vers");
    const QString version = m_bundle.objectForInfoDictionaryKey(kVersionKey).toString();
    SettingsStore defaults(hostDefaultsPath());
    if (defaults.value(key).toString() == version)
        return;

    if (!firstLaunch && installedForAllUsers(m_bundle.bundlePath())) {
        const PaneServices::ToolResult users = m_services.runTool(QStringLiteral("/usr/bin/users"), {});
        // A pipe that failed counts as one user.
        const QString text = users.started ? QString::fromUtf8(users.output) : QString();
        if (text.split(QLatin1Char(' ')).size() > 1) {
            beginAlertSheet(m_window, this,
                            {localizedString(QStringLiteral("RestartAlertTitle")),
                             localizedString(QStringLiteral("RestartAlertDefaultButton")),
                             localizedString(QStringLiteral("RestartAlertAlternateButton")),
                             localizedString(QStringLiteral("RestartAlertMsg"))},
                            [this](int code) { restartEnd(code); });
        }
    }
    // Once per version, whether or not the advice was shown.
    defaults.setValue(key, version);
    defaults.sync();
}

void ComQuorviaNimbrelPref::restartEnd(int returnCode)
{
    if (returnCode != kAlertDefaultReturn)
        return;
    const QString error = m_services.restartComputer();
    if (!error.isEmpty())
        m_services.systemLog(QStringLiteral("checkUpdatedMultiuserSystem: AppleScript failed ") + error);
}

} // namespace nimbrel

// NimbrelCom: the update check, the database reset, the sync-history bracket and the support requests.

#include "link/NimbrelCom.h"
#include "link/NimbrelComDelegate.h"
#include "logging/Log.h"
#include "platform/SettingsStore.h"

#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#include <syslog.h>

namespace nimbrel {

void NimbrelCom::checkForUpdate()
{
    if (m_backgroundAppRunning) {
        if (m_proxy)
            m_proxy->checkForUpdate();
        performAfterDelay("checkForUpdateTimeout", kCheckForUpdateDelay, &NimbrelCom::checkForUpdateTimeout);
        return;
    }

    // Not running: the background application's executable checks once and exits. The pane waits for
    // it, as the check is what the user just asked for.
    const std::optional<Bundle> app = m_bundle.appBundleForResource(QStringLiteral("Nimbrel"));
    const QString executable = app ? app->executablePath() : QString();
    QProcess process;
    process.setProgram(executable);
    process.setArguments({QStringLiteral("-sparkle")});
    process.setStandardInputFile(QProcess::nullDevice());
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start();
    if (!process.waitForStarted(-1))
        Log(13, "checkForUpdate: cannot start %@: %@", executable, process.errorString());
    else
        process.waitForFinished(-1);

    sharedSettings().sync(); // the child wrote the new check time
    m_delegate->nimbrelCheckedForUpdate();
}

void NimbrelCom::checkForUpdateTimeout()
{
    m_delegate->nimbrelCheckedForUpdate();
}

bool NimbrelCom::backgroundAppDatabaseExists()
{
    const QString dataHome = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    if (dataHome.isEmpty())
        return false;
    return QFileInfo(dataHome + QStringLiteral("/Nimbrel/Nimbrel.nsql")).isFile();
}

void NimbrelCom::resetDatabase()
{
    const bool exists = backgroundAppDatabaseExists();
    if (exists && m_proxy)
        m_proxy->resetDatabase();
    // A reset starts from scratch: Nimbrel no longer starts by itself until the user starts it again.
    const QString path = backgroundAppPath();
    if (!path.isEmpty())
        setStartsAtLogin(false, path);
    if (exists)
        performAfterDelay("resetDatabaseTimeout", kResetDatabaseDelay, &NimbrelCom::resetDatabaseTimeout);
    else
        m_delegate->nimbrelResetFinished(true);
}

void NimbrelCom::resetDatabaseTimeout()
{
    m_delegate->nimbrelResetFinished(false);
}

void NimbrelCom::syncHistoryWillBeReset()
{
    if (m_proxy)
        m_proxy->syncHistoryWillBeReset();
}

void NimbrelCom::syncHistoryWasReset()
{
    // The date goes first, so it is in the settings before the background application hears of the reset.
    touchLastResetDate();
    if (m_proxy)
        m_proxy->syncHistoryWasReset();
}

void NimbrelCom::techSupportInfo()
{
    // Synchronous: whatever the background application records for support is written before we return.
    if (m_proxy)
        m_proxy->techSupportInfo();
}

void NimbrelCom::log(const QString& text)
{
    // The text is an argument, never a format.
    syslog(LOG_NOTICE, "%s", text.toUtf8().constData());
    if (m_proxy)
        m_proxy->log(text);
}

} // namespace nimbrel

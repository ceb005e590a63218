// ComQuorviaNimbrelPref: the reset tab — clearing the sync history with nimbrel-resetsync, resetting
// Nimbrel's database (starting it first when needed) and opening a calendar backup.

#include "pane/ComQuorviaNimbrelPref.h"
#include "pane/Sheets.h"
#include "platform/RunLoop.h"
#include "platform/Strings.h"
#include "platform/SystemVersion.h"
#include "ui_ResetTab.h"

#include <QDir>
#include <QFileDialog>
#include <QFileInfo>
#include <QProgressBar>
#include <QPushButton>
#include <QStandardPaths>

namespace nimbrel {

namespace {

inline constexpr double kEnableResetButtonDelay = 60.0;
inline constexpr double kRestartAfterResetDelay = 2.0;

} // namespace

QWidget* ComQuorviaNimbrelPref::loadResetTab()
{
    auto* tab = new QWidget;
    Ui::ResetTab ui;
    ui.setupUi(tab);
    m_resetSyncHistoryButton = ui.resetSyncHistoryButton;
    m_resetButton = ui.resetButton;
    m_resetIndicator = ui.resetIndicator;
    QObject::connect(m_resetSyncHistoryButton, &QPushButton::clicked, this,
                     [this] { resetSyncHistoryButton(m_resetSyncHistoryButton); });
    QObject::connect(m_resetButton, &QPushButton::clicked, this, [this] { resetButton(m_resetButton); });
    QPushButton* restore = ui.restoreFromBackupButton;
    QObject::connect(restore, &QPushButton::clicked, this,
                     [this, restore] { restoreFromBackupButton(restore); });
    return tab;
}

void ComQuorviaNimbrelPref::resetSyncHistoryButton(QObject* sender)
{
    Q_UNUSED(sender);
    if (getSystemVersion() > kSystemVersion10_5OrLater) {
        setEnabledIfLoaded(m_resetSyncHistoryButton, false);
        setEnabledIfLoaded(m_resetButton, false);
        // A tool that could not be started leaves both buttons as they are now.
        if (!resetSyncServices())
            return;
        setEnabledIfLoaded(m_resetSyncHistoryButton, true);
        // The database reset stays out of reach for a minute after a history reset, on purpose.
        performAfterDelay("enableResetButton", kEnableResetButtonDelay,
                          &ComQuorviaNimbrelPref::enableResetButton);
        return;
    }
    // The older systems' script; no script ships on this platform, so its failure is logged.
    m_com->log(QStringLiteral("Running TigerResetSyncScript"));
    if (m_bundle.pathForResource(QStringLiteral("TigerResetSyncScript"), QStringLiteral("applescript"))
            .isEmpty())
        m_services.systemLog(QStringLiteral("resetSyncHistoryButton: AppleScript failed (no script)"));
}

bool ComQuorviaNimbrelPref::resetSyncServices()
{
    if (getSystemVersion() <= kSystemVersion10_5OrLater)
        return true;
    m_com->log(QStringLiteral("Resetting Sync Services"));
    m_com->syncHistoryWillBeReset();
    const QString tool = QDir(m_bundle.resourcePath()).filePath(QStringLiteral("nimbrel-resetsync"));
    const PaneServices::ToolResult result = m_services.runTool(tool, {QStringLiteral("full")});
    if (!result.started) {
        m_services.systemLog(QStringLiteral("resetSyncServices: cannot start ") + tool);
        return false;
    }
    if (result.exitStatus != 0)
        m_services.systemLog(QStringLiteral("nimbrel-resetsync returned error %1").arg(result.exitStatus));
    m_com->syncHistoryWasReset();
    return true;
}

void ComQuorviaNimbrelPref::enableResetButton()
{
    setEnabledIfLoaded(m_resetButton, true);
}

void ComQuorviaNimbrelPref::resetButton(QObject* sender)
{
    Q_UNUSED(sender);
    // The message is a format: "%%" in a translation is a percent sign.
    beginAlertSheet(m_window, this,
                    {localizedString(QStringLiteral("ResetAlertTitle")),
                     localizedString(QStringLiteral("ResetAlertDefaultButton")),
                     localizedString(QStringLiteral("ResetAlertAlternateButton")),
                     localizedFormat(QStringLiteral("ResetAlertMsg"), {})},
                    [this](int code) { resetButtonEnd(code); });
}

void ComQuorviaNimbrelPref::resetButtonEnd(int returnCode)
{
    if (returnCode != kAlertDefaultReturn)
        return;
    setEnabledIfLoaded(m_resetButton, false);
    setEnabledIfLoaded(m_resetSyncHistoryButton, false);
    startAnimation(m_resetIndicator);
    if (m_com->backgroundAppRunning() || !m_com->backgroundAppDatabaseExists()) {
        doReset();
        return;
    }
    // Stopped with a database: start Nimbrel; the reset follows 2 s after it answers.
    m_doingReset = true;
    startButton(nullptr);
}

void ComQuorviaNimbrelPref::doReset()
{
    m_com->log(QStringLiteral("Resetting Nimbrel"));
    m_com->resetDatabase();
}

void ComQuorviaNimbrelPref::nimbrelResetFinished(bool success)
{
    // Success or time-out look the same to the user.
    Q_UNUSED(success);
    setEnabledIfLoaded(m_resetButton, true);
    setEnabledIfLoaded(m_resetSyncHistoryButton, true);
    stopAnimation(m_resetIndicator);
    if (m_restartAfterReset) {
        m_restartAfterReset = false;
        m_services.systemLog(QStringLiteral("Restarting Nimbrel"));
        m_runLoop->performAfterDelay(performTarget(), QByteArrayLiteral("startButton"),
                                     kRestartAfterResetDelay, [this] { startButton(this); });
    }
}

QString ComQuorviaNimbrelPref::backupFolder()
{
    const QString data = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation);
    return data.isEmpty() ? QString() : data + QStringLiteral("/Nimbrel/Backup");
}

void ComQuorviaNimbrelPref::restoreFromBackupButton(QObject* sender)
{
    Q_UNUSED(sender);
    const QString folder = backupFolder();
    if (folder.isEmpty() || !QFileInfo::exists(folder))
        return;
    auto* panel = new QFileDialog(m_window, localizedString(QStringLiteral("Restore from Backup")), folder);
    panel->setAttribute(Qt::WA_DeleteOnClose);
    panel->setObjectName(QStringLiteral("restorePanel"));
    panel->setFileMode(QFileDialog::ExistingFile);
    panel->setAcceptMode(QFileDialog::AcceptOpen);
    panel->setNameFilter(localizedString(QStringLiteral("Calendar backups")) + QStringLiteral(" (*.ics)"));
    panel->setOption(QFileDialog::DontUseNativeDialog, !m_services.nativeDialogs);
    panel->setWindowModality(Qt::WindowModal);
    QObject::connect(panel, &QDialog::finished, this, [this, panel](int code) {
        openPanelDidEnd(code == QDialog::Accepted ? 1 : 0, panel->selectedUrls());
    });
    panel->open();
}

void ComQuorviaNimbrelPref::openPanelDidEnd(int returnCode, const QList<QUrl>& urls)
{
    // The user's calendar application does the restoring: it imports the file it is handed.
    if (returnCode == 1 && !urls.isEmpty())
        m_services.openUrl(urls.first().toString());
}

} // namespace nimbrel

// The support zip: the log folder (and the journal's tail) handed to the user's mail program.

#include "logging/Log.h"
#include "logging/SupportBundlePrivate.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/Strings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>

namespace nimbrel {

namespace {

using supportbundle::succeeded;

// Mail programs that `xdg-email --attach` can hand an attachment to, by their desktop file.
const QStringList kAttachingMailPrograms = {
    QStringLiteral("thunderbird.desktop"),
    QStringLiteral("mozilla-thunderbird.desktop"),
    QStringLiteral("org.mozilla.Thunderbird.desktop"),
    QStringLiteral("net.thunderbird.Thunderbird.desktop"),
    QStringLiteral("evolution.desktop"),
    QStringLiteral("org.gnome.Evolution.desktop"),
    QStringLiteral("kmail.desktop"),
    QStringLiteral("org.kde.kmail2.desktop"),
    QStringLiteral("kmail2.desktop"),
    QStringLiteral("claws-mail.desktop"),
    QStringLiteral("sylpheed.desktop"),
};

bool defaultMailProgramTakesAttachments()
{
    const ProcessResult answer = processRunner().run(
        QStringLiteral("/usr/bin/xdg-mime"),
        {QStringLiteral("query"), QStringLiteral("default"), QStringLiteral("x-scheme-handler/mailto")});
    if (!succeeded(answer))
        return false;
    return kAttachingMailPrograms.contains(QString::fromUtf8(answer.standardOutput).trimmed());
}

// Renames, or copies and removes when the two places are on different file systems.
bool moveFile(const QString& from, const QString& to)
{
    if (QFile::rename(from, to))
        return true;
    if (!QFile::copy(from, to))
        return false;
    QFile::remove(from);
    return true;
}

} // namespace

bool emailLogFiles(const QString& logFolder, const QString& emailScriptPath, const QString& subject,
                   const QString& filteredLogPath, bool includeSystemLog, const QString& mailtoTemplate)
{
    Q_UNUSED(filteredLogPath);
    LogFlush();
    const bool takesAttachment = defaultMailProgramTakesAttachments();

    const QString tempFolder = QDir::tempPath();
    const QString zipName = QFileInfo(QDir::cleanPath(logFolder)).fileName() + QStringLiteral(".zip");
    const QString zipPath = tempFolder + QLatin1Char('/') + zipName;
    QFile::remove(zipPath);

    // The zip takes the log folder and the journal's tail, nothing else: the shared settings file and
    // anything holding passwords stay out of it.
    QStringList arguments = {QStringLiteral("-q"), QStringLiteral("-j"), QStringLiteral("-r"), zipPath,
                             logFolder};
    if (includeSystemLog) {
        const QString systemLog = supportbundle::writeSystemLogTail(tempFolder);
        if (!systemLog.isEmpty())
            arguments << systemLog;
    }
    const ProcessResult zip = processRunner().run(QStringLiteral("/usr/bin/zip"), arguments);
    if (!succeeded(zip)) {
        // A zip that could not be run or was killed counts as status -1.
        const int status = zip.started && !zip.crashed ? zip.exitStatus : -1;
        Log(13, "emailLogFiles: zip failed %d", status);
        return false;
    }
    // The logs are the user's own: the zip in the shared temporary folder is readable by the user only.
    QFile::setPermissions(zipPath, QFileDevice::ReadOwner | QFileDevice::WriteOwner);

    if (takesAttachment) {
        // Subject and path are arguments of the script, never part of its text.
        const ProcessResult script =
            processRunner().run(QStringLiteral("/bin/sh"), {emailScriptPath, subject, zipPath});
        if (succeeded(script))
            return true;
        Log(13, "emailLogFiles: AppleScript failed %@", supportbundle::describe(script));
    }

    // No attachment possible: the zip goes to the Desktop and a prepared message asks for it.
    const QString desktop = QStandardPaths::writableLocation(QStandardPaths::DesktopLocation);
    if (desktop.isEmpty())
        return true;
    QDir().mkpath(desktop);
    const QString desktopZip = QDir(desktop).filePath(zipName);
    QFile::remove(desktopZip);
    if (!moveFile(zipPath, desktopZip)) {
        Log(13, "emailLogFiles: move %@ to desktop failed", zipName);
        return false;
    }
    const QString url = stringByMailToEncoding(fillPlaceholders(mailtoTemplate, {subject, zipName}));
    if (!supportbundle::openUrl(url))
        Log(13, "emailLogFiles: opening %@ failed", url);
    return true;
}

} // namespace nimbrel

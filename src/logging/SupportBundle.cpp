// The support zip: the log folder (and the journal's tail) handed to the user's mail program.

#include "logging/Log.h"
#include "logging/SupportBundlePrivate.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/Strings.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStandardPaths>
#include <QTemporaryDir>
#include <memory>

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

// A private folder for one request, made with a random name and mode 0700: under $XDG_RUNTIME_DIR
// (the user's own, gone at logout) where it is set, else in the temporary folder. No fixed name in a
// shared folder, so nobody else can plant or read the zip.
std::unique_ptr<QTemporaryDir> makeWorkFolder(QString* base)
{
    *base = qEnvironmentVariable("XDG_RUNTIME_DIR");
    if (base->isEmpty() || !QFileInfo(*base).isDir())
        *base = QDir::tempPath();
    auto folder = std::make_unique<QTemporaryDir>(*base + QStringLiteral("/nimbrel-support-XXXXXX"));
    return folder->isValid() ? std::move(folder) : nullptr;
}

// The folder whose zip went to the mail program, which may read the attachment after the hand-off:
// kept until the next request or the end of the program.
std::unique_ptr<QTemporaryDir>& handedOverFolder()
{
    static std::unique_ptr<QTemporaryDir> folder;
    return folder;
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

    handedOverFolder().reset();
    QString base;
    std::unique_ptr<QTemporaryDir> work = makeWorkFolder(&base);
    if (!work) {
        Log(13, "emailLogFiles: cannot make a private folder in %@", base);
        return false;
    }
    const QString zipName = QFileInfo(QDir::cleanPath(logFolder)).fileName() + QStringLiteral(".zip");
    const QString zipPath = work->filePath(zipName);

    // The zip takes the log folder and the journal's tail, nothing else: the shared settings file and
    // anything holding passwords stay out of it.
    QStringList arguments = {QStringLiteral("-q"), QStringLiteral("-j"), QStringLiteral("-r"), zipPath,
                             logFolder};
    QString systemLog;
    if (includeSystemLog) {
        systemLog = supportbundle::writeSystemLogTail(work->path());
        if (!systemLog.isEmpty())
            arguments << systemLog;
    }
    const ProcessResult zip = processRunner().run(QStringLiteral("/usr/bin/zip"), arguments);
    if (!systemLog.isEmpty())
        QFile::remove(systemLog); // in the zip now, or of no use
    if (!succeeded(zip)) {
        // A zip that could not be run or was killed counts as status -1.
        const int status = zip.started && !zip.crashed ? zip.exitStatus : -1;
        Log(13, "emailLogFiles: zip failed %d", status);
        return false;
    }
    // The logs are the user's own: the zip is readable by the user only, wherever it goes next.
    QFile::setPermissions(zipPath, QFileDevice::ReadOwner | QFileDevice::WriteOwner);

    if (takesAttachment) {
        // Subject and path are arguments of the script, never part of its text.
        const ProcessResult script =
            processRunner().run(QStringLiteral("/bin/sh"), {emailScriptPath, subject, zipPath});
        if (succeeded(script)) {
            handedOverFolder() = std::move(work);
            return true;
        }
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

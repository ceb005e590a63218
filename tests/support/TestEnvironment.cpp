#include "support/TestEnvironment.h"

#include "platform/PlistCodec.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>
#include <QTimer>
#include <memory>
#include <vector>

namespace nimbrel::test {

QString paneBundlePath()
{
    return QStringLiteral(NIMBREL_TEST_PANE_BUNDLE);
}

QString sourcePath(const QString& relative)
{
    return QDir(QStringLiteral(NIMBREL_SOURCE_DIR)).filePath(relative);
}

QString makeTempDir()
{
    static std::vector<std::unique_ptr<QTemporaryDir>> dirs;
    dirs.push_back(std::make_unique<QTemporaryDir>());
    return dirs.back()->path();
}

bool waitUntil(const std::function<bool()>& done, int timeoutMs)
{
    for (QDeadlineTimer deadline(timeoutMs); !done() && !deadline.hasExpired();) {
        QEventLoop slice;
        QTimer::singleShot(5, &slice, &QEventLoop::quit);
        slice.exec();
    }
    return done();
}

QString writeFile(const QString& path, const QByteArray& bytes, bool executable)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(bytes) != bytes.size())
        return QString();
    file.close();
    if (executable && !file.setPermissions(file.permissions() | QFileDevice::ExeOwner | QFileDevice::ExeUser))
        return QString();
    return path;
}

QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString writePlist(const QString& path, const QVariant& value)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    return plist::writeFile(path, value) ? path : QString();
}

QString makeAppBundle(const QString& path, const QString& identifier, const QString& executable,
                      const QByteArray& script, QVariantMap extra)
{
    extra.insert(s("CFBundleIdentifier"), identifier);
    extra.insert(s("CFBundleExecutable"), executable);
    writeFile(path + u'/' + executable, script, true);
    writePlist(path + s("/Info.plist"), extra);
    return path;
}

} // namespace nimbrel::test

#include "support/TestEnvironment.h"

#include <QDeadlineTimer>
#include <QDir>
#include <QEventLoop>
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

} // namespace nimbrel::test

#include "support/TestEnvironment.h"

#include <QDir>
#include <QTemporaryDir>
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

} // namespace nimbrel::test

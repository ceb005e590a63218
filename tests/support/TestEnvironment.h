#pragma once

#include <QString>

namespace nimbrel::test {

// Path of the pane bundle built into the build tree.
QString paneBundlePath();

// Path of a file below the source tree (for fixtures).
QString sourcePath(const QString& relative);

// A fresh empty directory below the test's private TMPDIR, removed when the process ends.
QString makeTempDir();

} // namespace nimbrel::test

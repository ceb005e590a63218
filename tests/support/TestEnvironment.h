#pragma once

#include <QString>
#include <functional>

namespace nimbrel::test {

// A QString from a UTF-8 literal: tests build many strings, and QT_NO_CAST_FROM_ASCII is on.
inline QString s(const char* text)
{
    return QString::fromUtf8(text);
}

// Path of the pane bundle built into the build tree.
QString paneBundlePath();

// Path of a file below the source tree (for fixtures).
QString sourcePath(const QString& relative);

// A fresh empty directory below the test's private TMPDIR, removed when the process ends.
QString makeTempDir();

// Runs the Qt event loop in 5 ms slices until `done` holds or `timeoutMs` have passed; returns done().
bool waitUntil(const std::function<bool()>& done, int timeoutMs = 5000);

} // namespace nimbrel::test

#pragma once

#include <QByteArray>
#include <QString>
#include <QVariantMap>
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

// Writes `bytes` to `path` (folders made as needed, executable when asked); returns the path, empty
// when the write failed.
QString writeFile(const QString& path, const QByteArray& bytes, bool executable = false);
// The file's bytes, empty when it cannot be read.
QByteArray readFile(const QString& path);
// Writes a property list to `path`, folders made as needed; returns the path.
QString writePlist(const QString& path, const QVariant& value);

// An app bundle at `path`: Info.plist with CFBundleIdentifier `identifier`, CFBundleExecutable
// `executable` and `extra`, and the executable as a script. Returns `path`.
QString makeAppBundle(const QString& path, const QString& identifier, const QString& executable = s("run"),
                      const QByteArray& script = "#!/bin/sh\n", QVariantMap extra = {});

} // namespace nimbrel::test

#pragma once

// Finding the current user's running processes by the bundle identifier of the app bundle whose
// executable they run.

#include <QString>

namespace nimbrel {

// The first process (ascending PID) of the current user whose /proc/PID/exe resolves to the executable
// of an app bundle with this CFBundleIdentifier; 0 when there is none. A trailing " (deleted)" on the
// link is ignored.
qint64 findProcessByBundleIdentifier(const QString& identifier);

// The bundle identifier of the app bundle whose executable is `executablePath` (the bundle is the
// executable's folder, its Info.plist names the file as CFBundleExecutable); empty when it is none.
QString bundleIdentifierForExecutable(const QString& executablePath);

} // namespace nimbrel

#pragma once

// Starting and stopping companion applications the way a desktop starts them (detached, without
// focus, asked to quit with SIGTERM), and opening URLs with the desktop's handlers.

#include <QStringList>

namespace nimbrel {

// Starts the executable of the app bundle at `bundlePath` (its Info.plist's CFBundleExecutable) in the
// background: its own session, standard streams on /dev/null, not a child of this process. False, with
// a log-worthy reason in *error, when the bundle has no executable or it could not be started.
bool launchApplication(const QString& bundlePath, const QStringList& arguments = {}, qint64* outPid = nullptr,
                       QString* error = nullptr);

// Opens `url` with the desktop's handler for its scheme (xdg-open, started detached, the URL its only
// argument). False, with the reason in *error, when the URL has no scheme or xdg-open could not start.
bool openUrlWithDesktop(const QString& url, QString* error = nullptr);

// Sends SIGTERM to `pid` and returns at once. False when the signal could not be sent.
bool requestQuit(qint64 pid);

} // namespace nimbrel

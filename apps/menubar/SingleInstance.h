#pragma once

// One tray companion per session: the first one owns a well-known name on the session bus; a later one
// finds it taken and leaves.

#include <QDBusConnection>
#include <QString>

namespace nimbrel {

inline const QString kMenuBarServiceName = QStringLiteral("com.quorvia.Nimbrel.Menu");

// Claims `name` without queueing for it. False, with the reason in *error, when another connection owns
// it or the bus cannot be reached. The name is released when the connection closes (the process ends).
bool claimBusName(const QDBusConnection& connection, const QString& name, QString* error = nullptr);

} // namespace nimbrel

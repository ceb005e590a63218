#pragma once

// Login items by application path, as the control panel and the tray keep them in step with the
// user's Start/Stop: an item matches when its "URL" equals loginItemURLForPath(path) exactly.

#include <QString>

namespace nimbrel {

// Whether a login item starts the application at `appPath` (false when the items cannot be read).
bool startsAtLogin(const QString& appPath);

// Adds (not hidden) or removes the application's login item. Errors are not reported: the item is
// simply not added or removed.
void setStartsAtLogin(bool wanted, const QString& appPath);

} // namespace nimbrel

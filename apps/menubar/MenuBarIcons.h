#pragma once

// The tray icon for each state: the icon theme's icon of the controller's name, else a small calendar
// drawn here, so the tray works without any icon theme. Each state has its own colour, and "not
// responding" carries an exclamation mark.

#include "MenuBarController.h"

#include <QIcon>

namespace nimbrel {

QIcon menuBarIcon(BackgroundAppState state);

// The drawn icon alone, in the usual tray sizes.
QIcon drawnMenuBarIcon(BackgroundAppState state);

} // namespace nimbrel

#pragma once

#include <QIcon>

namespace nimbrel {

// The panel's icon: the desktop theme's "nimbrel-preferences" when installed, else drawn here (a
// calendar page with two arrows in step), so the window never goes without one.
QIcon paneIcon();
QPixmap drawPaneIcon(int size);

} // namespace nimbrel

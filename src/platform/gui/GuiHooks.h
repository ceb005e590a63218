#pragma once

// The platform's few GUI pieces, kept out of the core library so that programs without a display
// (the background application) never load Qt Gui or Widgets. A GUI program calls this once, after
// making its QApplication: the start-up guard's alert becomes a message box, and the Alternate key is
// read from the application's keyboard state.

#include "platform/PrefPaneUtilities.h"

namespace nimbrel {

void installGuiPlatformHooks();

// The start-up guard's alert as a modal message box with both buttons.
PrefPaneUtilities::AlertButton messageBoxAlert(const PrefPaneUtilities::AlertTexts& texts);

} // namespace nimbrel

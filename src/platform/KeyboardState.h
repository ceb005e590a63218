#pragma once

// The keyboard's modifier state for code below the GUI: a program without a keyboard answers false,
// a GUI program installs the real source (installGuiPlatformHooks in platform/gui).

#include <functional>

namespace nimbrel {

// Whether the Alternate (Option) key is down in the event being handled.
bool alternateKeyDown();
// Replaces where alternateKeyDown() asks; an empty function answers false again.
void setAlternateKeySource(std::function<bool()> source);

} // namespace nimbrel

#pragma once

// The shared settings domain (com.quorvia.Nimbrel.plist) as the background application reads it.

namespace nimbrel {
class SettingsStore;
}

namespace nimbrel::background {

// When the file could not be read and was kept aside, says so in the log with the kept file's name,
// once for each kept file.
void noteCorruptSettings(const SettingsStore& shared);

} // namespace nimbrel::background

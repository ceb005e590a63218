#pragma once

// The operating-system version packed into one comparable number: one decimal digit per 4-bit group,
// 0x00MmmB-style (10.4.11 is 0x100411, 10.5.3 is 0x100503). Every version gate in the program compares
// against getSystemVersion() with the thresholds below.

#include <QtGlobal>
#include <functional>
#include <optional>

namespace nimbrel {

inline constexpr quint32 kSystemVersion10_4OrLater = 0x1003FF;   // version > this: 10.4 or later
inline constexpr quint32 kSystemVersion10_5OrLater = 0x1004FF;   // version > this: 10.5.0 or later
inline constexpr quint32 kSystemVersion10_5_2OrLater = 0x100501; // version > this: 10.5.2 or later
inline constexpr quint32 kSystemVersionBefore10_5_3 = 0x100503;  // version < this: before 10.5.3

// What the host answers for each selector of the version query. Linux has no such numbering, so the
// host answers with the newest system the program knows (10.5.8): every "or later" gate is open and
// every "earlier than" gate closed.
enum class VersionSelector
{
    Major,
    Minor,
    BugFix,
    PackedLegacy
};
using VersionSource = std::function<std::optional<quint32>(VersionSelector)>;

// Packed version, computed once and cached; a result of 0 is not cached.
quint32 getSystemVersion();

// Packs major.minor.bugfix as described above (each part split into tens and units).
quint32 packSystemVersion(quint32 major, quint32 minor, quint32 bugFix);

// Replaces the source of the version (nullptr restores the host's) and clears the cache.
void setSystemVersionSource(VersionSource source);

// Convenience for tests: answers major, minor and bug fix from a packed value.
VersionSource fixedSystemVersion(quint32 packed);

} // namespace nimbrel

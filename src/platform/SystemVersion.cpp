#include "platform/SystemVersion.h"

#include <QMutex>
#include <QMutexLocker>

namespace nimbrel {

namespace {

// Linux has no such numbering: answer with the newest system the program knows (10.5.8).
std::optional<quint32> hostSystemVersion(VersionSelector selector)
{
    switch (selector) {
    case VersionSelector::Major:
        return 10;
    case VersionSelector::Minor:
        return 5;
    case VersionSelector::BugFix:
        return 8;
    case VersionSelector::PackedLegacy:
        return 0x1058;
    }
    return std::nullopt;
}

struct VersionState
{
    QMutex mutex;
    VersionSource source;
    quint32 cached = 0;
};

VersionState& state()
{
    static VersionState s;
    return s;
}

// Two decimal digits of one part as two 4-bit groups.
quint32 packPart(quint32 value)
{
    return ((value / 10 % 10) << 4) | (value % 10);
}

// The older form 0xMMmb (major as two digits, minor and bug fix one digit each) widened to 0xMMmmbb.
quint32 widenLegacy(quint32 v)
{
    return ((v & 0xFF00) << 8) | ((v & 0xF0) << 4) | (v & 0x0F);
}

quint32 askSource(const VersionSource& source)
{
    const auto major = source(VersionSelector::Major);
    const auto minor = source(VersionSelector::Minor);
    const auto bugFix = source(VersionSelector::BugFix);
    if (major && minor && bugFix)
        return packSystemVersion(*major, *minor, *bugFix);
    if (const auto legacy = source(VersionSelector::PackedLegacy))
        return widenLegacy(*legacy);
    return 0;
}

} // namespace

quint32 packSystemVersion(quint32 major, quint32 minor, quint32 bugFix)
{
    return (packPart(major) << 16) | (packPart(minor) << 8) | packPart(bugFix);
}

quint32 getSystemVersion()
{
    VersionState& s = state();
    QMutexLocker lock(&s.mutex);
    if (s.cached != 0)
        return s.cached;
    // An unknown version (0) is asked again next time.
    s.cached = askSource(s.source ? s.source : VersionSource(hostSystemVersion));
    return s.cached;
}

void setSystemVersionSource(VersionSource source)
{
    VersionState& s = state();
    QMutexLocker lock(&s.mutex);
    s.source = std::move(source);
    s.cached = 0;
}

VersionSource fixedSystemVersion(quint32 packed)
{
    const auto unpack = [packed](int shift) {
        return ((packed >> (shift + 4)) & 0xF) * 10 + ((packed >> shift) & 0xF);
    };
    const quint32 major = unpack(16), minor = unpack(8), bugFix = unpack(0);
    return [=](VersionSelector selector) -> std::optional<quint32> {
        switch (selector) {
        case VersionSelector::Major:
            return major;
        case VersionSelector::Minor:
            return minor;
        case VersionSelector::BugFix:
            return bugFix;
        case VersionSelector::PackedLegacy:
            break;
        }
        return std::nullopt;
    };
}

} // namespace nimbrel

#include "platform/SystemVersion.h"

#include <gtest/gtest.h>
#include <map>

using namespace nimbrel;
using S = VersionSelector;

namespace {

// A source with a chosen answer per selector (missing = the query fails) that counts its calls.
struct CountingSource
{
    std::map<S, quint32> answers;
    int calls = 0;
    VersionSource source()
    {
        return [this](S selector) -> std::optional<quint32> {
            ++calls;
            const auto it = answers.find(selector);
            return it == answers.end() ? std::nullopt : std::optional<quint32>(it->second);
        };
    }
};

} // namespace

TEST(SystemVersion, PacksPartsFallsBackToTheLegacyFormCachesWhatItKnowsAndGatesSplitAtTheirThresholds)
{
    EXPECT_EQ(packSystemVersion(10, 4, 11), 0x100411u);
    EXPECT_EQ(packSystemVersion(12, 34, 56), 0x123456u);
    // When one part fails the legacy form is used; each digit distinct so a misplaced group shows.
    for (const S missing : {S::PackedLegacy, S::Major, S::Minor, S::BugFix}) {
        CountingSource source{{{S::Major, 10}, {S::Minor, 5}, {S::BugFix, 3}, {S::PackedLegacy, 0x1234}}};
        source.answers.erase(missing);
        setSystemVersionSource(source.source());
        EXPECT_EQ(getSystemVersion(), missing == S::PackedLegacy ? 0x100503u : 0x120304u) << int(missing);
        // Known: cached until the source changes.
        const int calls = source.calls;
        EXPECT_EQ(getSystemVersion(), missing == S::PackedLegacy ? 0x100503u : 0x120304u);
        EXPECT_EQ(source.calls, calls);
    }
    CountingSource unknown; // unknown: asked again every time
    setSystemVersionSource(unknown.source());
    EXPECT_EQ(getSystemVersion(), 0u);
    const int calls = unknown.calls;
    EXPECT_EQ(getSystemVersion(), 0u);
    EXPECT_GT(unknown.calls, calls);
    setSystemVersionSource(nullptr); // the host reports the newest known system
    EXPECT_EQ(getSystemVersion(), 0x100508u);

    EXPECT_TRUE(0x100309 <= kSystemVersion10_4OrLater && 0x100400 > kSystemVersion10_4OrLater);
    EXPECT_TRUE(0x100411 <= kSystemVersion10_5OrLater && 0x100500 > kSystemVersion10_5OrLater);
    EXPECT_TRUE(0x100501 <= kSystemVersion10_5_2OrLater && 0x100502 > kSystemVersion10_5_2OrLater);
    EXPECT_TRUE(0x100502 < kSystemVersionBefore10_5_3 && 0x100503 >= kSystemVersionBefore10_5_3);
}

#include "platform/SystemVersion.h"

#include <gtest/gtest.h>
#include <map>

using namespace nimbrel;

namespace {

// A source with a chosen answer per selector (missing = the query fails) that counts its calls.
struct CountingSource
{
    std::map<VersionSelector, quint32> answers;
    int calls = 0;

    VersionSource source()
    {
        return [this](VersionSelector selector) -> std::optional<quint32> {
            ++calls;
            const auto it = answers.find(selector);
            if (it == answers.end())
                return std::nullopt;
            return it->second;
        };
    }
};

class SystemVersionTest : public ::testing::Test
{
protected:
    void TearDown() override { setSystemVersionSource(nullptr); }
};

} // namespace

TEST_F(SystemVersionTest, PacksEachPartAsTensAndUnits)
{
    EXPECT_EQ(packSystemVersion(10, 4, 11), 0x100411u);
    EXPECT_EQ(packSystemVersion(10, 5, 3), 0x100503u);
    EXPECT_EQ(packSystemVersion(12, 34, 56), 0x123456u);

    CountingSource source{
        {{VersionSelector::Major, 10}, {VersionSelector::Minor, 4}, {VersionSelector::BugFix, 11}}};
    setSystemVersionSource(source.source());
    EXPECT_EQ(getSystemVersion(), 0x100411u);

    // The test source decodes two-digit parts back.
    setSystemVersionSource(fixedSystemVersion(0x123456));
    EXPECT_EQ(getSystemVersion(), 0x123456u);
}

TEST_F(SystemVersionTest, FallsBackToLegacyFormWhenOnePartFails)
{
    // Each digit distinct so a misplaced group shows: 0x1234 widens to 0x120304.
    for (const VersionSelector missing :
         {VersionSelector::Major, VersionSelector::Minor, VersionSelector::BugFix}) {
        CountingSource source{{{VersionSelector::Major, 10},
                               {VersionSelector::Minor, 5},
                               {VersionSelector::BugFix, 3},
                               {VersionSelector::PackedLegacy, 0x1234}}};
        source.answers.erase(missing);
        setSystemVersionSource(source.source());
        EXPECT_EQ(getSystemVersion(), 0x120304u) << static_cast<int>(missing);
    }

    CountingSource tiger{{{VersionSelector::PackedLegacy, 0x1049}}};
    setSystemVersionSource(tiger.source());
    EXPECT_EQ(getSystemVersion(), 0x100409u);
}

TEST_F(SystemVersionTest, UnknownVersionIsAskedAgain)
{
    CountingSource source;
    setSystemVersionSource(source.source());
    EXPECT_EQ(getSystemVersion(), 0u);
    const int firstCalls = source.calls;
    EXPECT_GT(firstCalls, 0);
    EXPECT_EQ(getSystemVersion(), 0u);
    EXPECT_GT(source.calls, firstCalls);
}

TEST_F(SystemVersionTest, KnownVersionIsCachedUntilTheSourceChanges)
{
    CountingSource source{
        {{VersionSelector::Major, 10}, {VersionSelector::Minor, 5}, {VersionSelector::BugFix, 3}}};
    setSystemVersionSource(source.source());
    EXPECT_EQ(getSystemVersion(), 0x100503u);
    const int calls = source.calls;
    EXPECT_EQ(getSystemVersion(), 0x100503u);
    EXPECT_EQ(source.calls, calls);

    setSystemVersionSource(fixedSystemVersion(0x100309));
    EXPECT_EQ(getSystemVersion(), 0x100309u);
}

TEST_F(SystemVersionTest, HostReportsNewestKnownSystem)
{
    setSystemVersionSource(fixedSystemVersion(0x100309));
    EXPECT_EQ(getSystemVersion(), 0x100309u);
    setSystemVersionSource(nullptr);
    EXPECT_EQ(getSystemVersion(), 0x100508u);
    EXPECT_GT(getSystemVersion(), kSystemVersion10_5_2OrLater);
    EXPECT_FALSE(getSystemVersion() < kSystemVersionBefore10_5_3);
}

TEST_F(SystemVersionTest, GatesSplitAtTheirThresholds)
{
    setSystemVersionSource(fixedSystemVersion(0x100400));
    EXPECT_GT(getSystemVersion(), kSystemVersion10_4OrLater);
    EXPECT_FALSE(getSystemVersion() > kSystemVersion10_5OrLater);

    setSystemVersionSource(fixedSystemVersion(0x100309));
    EXPECT_FALSE(getSystemVersion() > kSystemVersion10_4OrLater);

    setSystemVersionSource(fixedSystemVersion(0x100501));
    EXPECT_FALSE(getSystemVersion() > kSystemVersion10_5_2OrLater);
    setSystemVersionSource(fixedSystemVersion(0x100502));
    EXPECT_GT(getSystemVersion(), kSystemVersion10_5_2OrLater);
    EXPECT_LT(getSystemVersion(), kSystemVersionBefore10_5_3);
}

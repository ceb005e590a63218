// The shared settings the link reads and writes in the background application's domain: first launch,
// the automatic update check with its built-in default, the last check and reset dates.

#include "link/MockDelegate.h"
#include "link/NimbrelCom.h"
#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"
#include "platform/VirtualRunLoop.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace nimbrel {
namespace {

using ::testing::StrictMock;

const QString kWelcomed = QStringLiteral("welcomed");
const QString kWelcome = QStringLiteral("welcome");
const QString kInterval = QStringLiteral("checkForUpdateInterval");
const QString kLastCheck = QStringLiteral("SULastCheckTime");
const QDateTime kReferenceDate = QDateTime::fromSecsSinceEpoch(978307200, Qt::UTC); // 2001-01-01

// A pane bundle whose background application has its own identifier (so each test has its own
// domain) and, when `defaults` is given, built-in defaults.
QString makePaneBundle(const QString& identifier, const std::optional<QVariantMap>& defaults)
{
    const QString pane = QDir(test::makeTempDir()).filePath(QStringLiteral("Test.prefPane"));
    const QString app = pane + QStringLiteral("/Resources/Nimbrel.app");
    EXPECT_TRUE(QDir().mkpath(app + QStringLiteral("/Resources")));
    EXPECT_TRUE(plist::writeFile(pane + QStringLiteral("/Info.plist"), QVariantMap()));
    EXPECT_TRUE(plist::writeFile(app + QStringLiteral("/Info.plist"),
                                 QVariantMap{{QStringLiteral("CFBundleIdentifier"), identifier}}));
    if (defaults) {
        EXPECT_TRUE(plist::writeFile(app + QStringLiteral("/Resources/UserDefaults.plist"), *defaults));
    }
    return pane;
}

class NimbrelComSettingsTest : public ::testing::Test
{
protected:
    NimbrelComSettingsTest()
    {
        static int serial = 0;
        identifier = QStringLiteral("org.example.settings%1").arg(++serial);
    }

    // The domain as another process sees it; fresh each time so it re-reads the file.
    std::unique_ptr<SettingsStore> domain() const
    {
        return std::make_unique<SettingsStore>(SettingsStore::domainPath(identifier));
    }
    // Seeds the domain (null values are left out); call before makeCom().
    void seed(const QString& key, const QVariant& value) const
    {
        if (value.isValid()) {
            ASSERT_TRUE(domain()->setValue(key, value));
        }
    }
    NimbrelCom& makeCom(const std::optional<QVariantMap>& defaults = std::nullopt)
    {
        com = std::make_unique<NimbrelCom>(&delegate, Bundle(makePaneBundle(identifier, defaults)), &loop);
        return *com;
    }

    QString identifier;
    VirtualRunLoop loop;
    StrictMock<test::MockDelegate> delegate;
    std::unique_ptr<NimbrelCom> com;
};

TEST_F(NimbrelComSettingsTest, IdentifiersComeFromTheBackgroundApplication)
{
    EXPECT_EQ(makeCom().backgroundAppIdentifier(), identifier);
    EXPECT_EQ(com->menuBarAppIdentifier(), identifier + QStringLiteral(".menu"));
    EXPECT_EQ(com->sharedSettings().path(), SettingsStore::domainPath(identifier));
    const NimbrelCom fallback(&delegate, Bundle(), &loop);
    EXPECT_EQ(fallback.backgroundAppIdentifier(), kBackgroundAppIdentifier);
    EXPECT_EQ(fallback.menuBarAppIdentifier(), kMenuBarAppIdentifier);
}

struct FirstLaunchCase
{
    const char* name;
    QVariant welcomed;
    QVariant welcome;
    bool first;
    bool outWelcome;
};

void PrintTo(const FirstLaunchCase& c, std::ostream* os)
{
    *os << c.name;
}

class FirstLaunchTest : public NimbrelComSettingsTest, public ::testing::WithParamInterface<FirstLaunchCase>
{
};

TEST_P(FirstLaunchTest, AnswersOnceAndMarksTheDomain)
{
    const FirstLaunchCase& c = GetParam();
    seed(kWelcomed, c.welcomed);
    seed(kWelcome, c.welcome);
    NimbrelCom& link = makeCom();

    bool welcome = true;
    EXPECT_EQ(link.firstLaunch(&welcome), c.first);
    EXPECT_EQ(welcome, c.outWelcome);
    const auto after = domain();
    if (c.first) {
        EXPECT_EQ(after->boolValue(kWelcomed), std::optional<bool>(true));
        EXPECT_FALSE(after->value(kWelcome).isValid());
    } else {
        EXPECT_EQ(after->value(kWelcome), c.welcome); // nothing written
    }

    welcome = true;
    EXPECT_FALSE(link.firstLaunch(&welcome));
    EXPECT_FALSE(welcome);
}

INSTANTIATE_TEST_SUITE_P(
    Domains, FirstLaunchTest,
    ::testing::Values(FirstLaunchCase{"Fresh", {}, {}, true, false},
                      FirstLaunchCase{"Welcomed", true, true, false, false},
                      FirstLaunchCase{"WelcomedFalse", false, {}, true, false},
                      FirstLaunchCase{"WelcomedString", QStringLiteral("yes"), {}, true, false},
                      FirstLaunchCase{"WelcomedNumber", qint64(1), {}, true, false},
                      FirstLaunchCase{"WelcomeTrue", {}, true, true, true},
                      FirstLaunchCase{"WelcomeFalse", {}, false, true, false},
                      FirstLaunchCase{"WelcomeNumber", {}, qint64(1), true, false}),
    [](const ::testing::TestParamInfo<FirstLaunchCase>& info) { return std::string(info.param.name); });

struct UpdateIntervalCase
{
    const char* name;
    std::optional<QVariantMap> defaults;
    QVariant stored;
    bool on;
};

void PrintTo(const UpdateIntervalCase& c, std::ostream* os)
{
    *os << c.name;
}

class AutoCheckTest : public NimbrelComSettingsTest, public ::testing::WithParamInterface<UpdateIntervalCase>
{
};

TEST_P(AutoCheckTest, ReadsTheIntervalAgainstTheThreshold)
{
    seed(kInterval, GetParam().stored);
    EXPECT_EQ(makeCom(GetParam().defaults).autoCheckForUpdates(), GetParam().on);
}

const QVariantMap kDefaultsOff{{QStringLiteral("checkForUpdateInterval"), 1000000000.0}};

INSTANTIATE_TEST_SUITE_P(
    Intervals, AutoCheckTest,
    ::testing::Values(UpdateIntervalCase{"NothingAnywhere", std::nullopt, {}, true},
                      UpdateIntervalCase{"DefaultsWithoutKey", QVariantMap(), {}, true},
                      UpdateIntervalCase{"DefaultOff", kDefaultsOff, {}, false},
                      UpdateIntervalCase{"StoredDayBeatsDefault", kDefaultsOff, 86400.0, true},
                      UpdateIntervalCase{"StoredOffExactly", std::nullopt, 1000000000.0, false},
                      UpdateIntervalCase{"StoredJustBelow", std::nullopt, 999999999.0, true},
                      UpdateIntervalCase{"StoredIntegerOff", std::nullopt, qint64(1000000000), false},
                      UpdateIntervalCase{"StoredStringIgnored", kDefaultsOff, QStringLiteral("5"), false}),
    [](const ::testing::TestParamInfo<UpdateIntervalCase>& info) { return std::string(info.param.name); });

TEST_F(NimbrelComSettingsTest, SetAutoCheckWritesTheTwoIntervals)
{
    NimbrelCom& link = makeCom(kDefaultsOff);
    for (const bool on : {true, false, true}) {
        link.setAutoCheckForUpdates(on);
        EXPECT_EQ(domain()->numberValue(kInterval), std::optional<double>(on ? 86400.0 : 1000000000.0));
        EXPECT_EQ(link.autoCheckForUpdates(), on);
    }
}

TEST_F(NimbrelComSettingsTest, LastUpdateCheckTimeFallsBackToTheReferenceDate)
{
    const QDateTime checked = QDateTime::fromSecsSinceEpoch(1700000000, Qt::UTC);
    const struct
    {
        QVariant stored;
        QDateTime expected;
    } cases[] = {
        {checked, checked},
        {QVariant(), kReferenceDate},
        {QStringLiteral("2023-11-14T22:13:20Z"), kReferenceDate},
        {qint64(1700000000), kReferenceDate},
    };
    for (const auto& c : cases) {
        ASSERT_TRUE(domain()->setValue(kLastCheck, c.stored));
        EXPECT_EQ(makeCom().lastUpdateCheckTime(), c.expected) << c.stored.toString().toStdString();
    }
}

} // namespace
} // namespace nimbrel

#include "platform/Bundle.h"
#include "platform/PlistCodec.h"
#include "platform/Strings.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <gtest/gtest.h>
#include <tuple>

using namespace nimbrel;

namespace {

void writeText(const QString& path, const QByteArray& text)
{
    QDir().mkpath(path.section(QLatin1Char('/'), 0, -2));
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::WriteOnly) && file.write(text) == text.size()) << qPrintable(path);
}

QString info(const Bundle& bundle, const char* key)
{
    return bundle.objectForInfoDictionaryKey(QLatin1String(key)).toString();
}

} // namespace

TEST(Bundle, BuiltPaneBundleCarriesItsInfoAndStringTable)
{
    const Bundle pane(test::paneBundlePath());
    ASSERT_TRUE(pane.isValid()) << qPrintable(pane.error());
    EXPECT_EQ(pane.bundleIdentifier(), QStringLiteral("com.quorvia.NimbrelPref"));
    EXPECT_EQ(info(pane, "CFBundleShortVersionString"), QStringLiteral(NIMBREL_PROJECT_VERSION));
    EXPECT_EQ(info(pane, "LogsEMail").count(QStringLiteral("%@")), 2); // subject, then file name

    ASSERT_TRUE(pane.loadStringTable(kStringTable));
    EXPECT_TRUE(pane.loadStringTable(kStringTable)); // loading again is harmless
    EXPECT_FALSE(pane.loadStringTable(QStringLiteral("NoSuchTable")));
    EXPECT_EQ(localizedString(QStringLiteral("ResetAlertDefaultButton")), QStringLiteral("Reset"));
    // A key the table lacks, or one asked of another table, answers itself.
    const QString missing = QStringLiteral("A text nobody translated");
    EXPECT_EQ(localizedString(missing), missing);
    EXPECT_EQ(localizedString(QStringLiteral("ResetAlertTitle"), QStringLiteral("Other")),
              QStringLiteral("ResetAlertTitle"));
    const QString message =
        localizedFormat(QStringLiteral("DisconnectAlertMsg"), {QStringLiteral("Office 100%")});
    EXPECT_TRUE(message.contains(QStringLiteral("Office 100%")) && !message.contains(QStringLiteral("%@")))
        << qPrintable(message);
}

TEST(Bundle, FindsResourcesAndAppBundlesOnlyInsideResources)
{
    const QString root = test::makeTempDir() + QStringLiteral("/Pane.prefPane");
    for (const char* file : {"Resources/Helper.app/Helper", "Resources/Broken.app/Resources/x",
                             "Resources/Script.sh", "Resources/README", "Secret.txt"})
        writeText(root + QLatin1Char('/') + QLatin1String(file), "#!/bin/sh\n");
    ASSERT_TRUE(
        plist::writeFile(root + QStringLiteral("/Info.plist"), QVariantMap{{QStringLiteral("Answer"), 42}}));
    ASSERT_TRUE(plist::writeFile(
        root + QStringLiteral("/Resources/Helper.app/Info.plist"),
        QVariantMap{{QStringLiteral("CFBundleIdentifier"), QStringLiteral("org.example.helper")},
                    {QStringLiteral("CFBundleExecutable"), QStringLiteral("Helper")}}));

    const Bundle bundle(root);
    ASSERT_TRUE(bundle.isValid());
    EXPECT_EQ(bundle.objectForInfoDictionaryKey(QStringLiteral("Answer")), QVariant(qint64(42)));
    EXPECT_TRUE(bundle.executablePath().isEmpty()); // the pane names no executable
    const std::tuple<const char*, const char*, const char*> lookups[] = {
        {"Script", "sh", "/Script.sh"}, {"README", "", "/README"}, {"Script", "py", nullptr},
        {"../Secret", "txt", nullptr},  {"", "sh", nullptr},
    };
    for (const auto& [name, type, found] : lookups)
        EXPECT_EQ(bundle.pathForResource(QLatin1String(name), QLatin1String(type)),
                  found ? bundle.resourcePath() + QLatin1String(found) : QString())
            << name << "." << type;

    const std::optional<Bundle> helper = bundle.appBundleForResource(QStringLiteral("Helper"));
    ASSERT_TRUE(helper.has_value());
    EXPECT_EQ(helper->bundleIdentifier(), QStringLiteral("org.example.helper"));
    EXPECT_EQ(helper->executablePath(), bundle.resourcePath() + QStringLiteral("/Helper.app/Helper"));
    EXPECT_FALSE(bundle.appBundleForResource(QStringLiteral("Broken")).has_value()); // no Info.plist
    EXPECT_FALSE(bundle.appBundleForResource(QStringLiteral("Missing")).has_value());
}

TEST(Bundle, InvalidBundlesSayWhyAndDefaultPathFollowsTheEnvironment)
{
    const QString noInfo = test::makeTempDir();
    const Bundle empty(noInfo);
    EXPECT_FALSE(empty.isValid());
    EXPECT_TRUE(empty.error().contains(QStringLiteral("Info.plist"))) << qPrintable(empty.error());
    EXPECT_TRUE(empty.bundleIdentifier().isEmpty());
    EXPECT_FALSE(Bundle(noInfo + QStringLiteral("/absent")).isValid());
    const QString arrayInfo = test::makeTempDir();
    ASSERT_TRUE(plist::writeFile(arrayInfo + QStringLiteral("/Info.plist"), QVariantList{1}));
    EXPECT_FALSE(Bundle(arrayInfo).isValid());
    const QString garbage = test::makeTempDir();
    writeText(garbage + QStringLiteral("/Info.plist"), "<plist><dict><key>a</key></dict></plist>");
    const Bundle broken(garbage);
    EXPECT_FALSE(broken.isValid());
    EXPECT_TRUE(broken.error().contains(QStringLiteral("line"))) << qPrintable(broken.error());

    qputenv("NIMBREL_PANE_BUNDLE", "/opt/elsewhere/Nimbrel.prefPane");
    EXPECT_EQ(Bundle::defaultPaneBundlePath(), QStringLiteral("/opt/elsewhere/Nimbrel.prefPane"));
    qunsetenv("NIMBREL_PANE_BUNDLE");
    EXPECT_TRUE(Bundle::defaultPaneBundlePath().endsWith(QStringLiteral("/lib/nimbrel/Nimbrel.prefPane")));
}

TEST(Strings, PlaceholdersAreFilledWithoutTakingPercentAsADirective)
{
    const QStringList args{QStringLiteral("one"), QStringLiteral("two")};
    const std::pair<const char*, const char*> cases[] = {
        {"%@ and %@", "one and two"},
        {"%2$@ before %1$@", "two before one"},
        {"100%% sure, %d %s %", "100% sure, %d %s %"},
        {"%@|%@|%@", "one|two|"},
        {"%3$@%0$@%1$", "%0$@%1$"},
        {"", ""},
    };
    for (const auto& [format, expected] : cases)
        EXPECT_EQ(fillPlaceholders(QLatin1String(format), args), QLatin1String(expected)) << format;
    // An argument is inserted as it stands, never expanded again.
    EXPECT_EQ(
        fillPlaceholders(QStringLiteral("[%@] %@"), {QStringLiteral("%@ %1$@ %%"), QStringLiteral("x")}),
        QStringLiteral("[%@ %1$@ %%] x"));
}

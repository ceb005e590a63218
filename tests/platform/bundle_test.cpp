#include "platform/Bundle.h"
#include "platform/PlistCodec.h"
#include "platform/Strings.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <gtest/gtest.h>

using namespace nimbrel;

namespace {

void writeText(const QString& path, const QByteArray& text)
{
    QDir().mkpath(path.section(QLatin1Char('/'), 0, -2));
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(text);
}

// A pane-like bundle with an app bundle among its resources.
QString makeBundleTree()
{
    const QString root = test::makeTempDir() + QStringLiteral("/Pane.prefPane");
    const QString app = root + QStringLiteral("/Resources/Helper.app");
    QDir().mkpath(app);
    EXPECT_TRUE(plist::writeFile(
        root + QStringLiteral("/Info.plist"),
        QVariantMap{{QStringLiteral("CFBundleIdentifier"), QStringLiteral("org.example.pane")},
                    {QStringLiteral("Answer"), qint64(42)}}));
    EXPECT_TRUE(plist::writeFile(
        app + QStringLiteral("/Info.plist"),
        QVariantMap{{QStringLiteral("CFBundleIdentifier"), QStringLiteral("org.example.helper")},
                    {QStringLiteral("CFBundleExecutable"), QStringLiteral("Helper")}}));
    writeText(app + QStringLiteral("/Helper"), "#!/bin/sh\n");
    writeText(root + QStringLiteral("/Resources/Broken.app/Resources/x"), "x");
    writeText(root + QStringLiteral("/Resources/Script.sh"), "#!/bin/sh\n");
    writeText(root + QStringLiteral("/Resources/README"), "plain");
    writeText(root + QStringLiteral("/Secret.txt"), "outside Resources");
    return root;
}

} // namespace

TEST(Bundle, BuiltPaneBundleCarriesItsInfoAndStringTable)
{
    const Bundle pane(test::paneBundlePath());
    ASSERT_TRUE(pane.isValid()) << qPrintable(pane.error());
    EXPECT_EQ(pane.bundleIdentifier(), QStringLiteral("com.quorvia.NimbrelPref"));
    EXPECT_EQ(pane.objectForInfoDictionaryKey(QStringLiteral("CFBundleShortVersionString")).toString(),
              QStringLiteral(NIMBREL_PROJECT_VERSION));
    for (const char* key : {"UserGuideURL", "SignupURL", "LogsEMail"})
        EXPECT_FALSE(pane.objectForInfoDictionaryKey(QLatin1String(key)).toString().isEmpty()) << key;
    // The mail template has the two placeholders, subject then file name.
    EXPECT_EQ(
        pane.objectForInfoDictionaryKey(QStringLiteral("LogsEMail")).toString().count(QStringLiteral("%@")),
        2);
    EXPECT_FALSE(pane.pathForResource(QStringLiteral("NimbrelPref_en"), QStringLiteral("qm")).isEmpty());
}

TEST(Bundle, FindsResourcesByNameAndTypeOnlyInsideResources)
{
    const Bundle bundle(makeBundleTree());
    ASSERT_TRUE(bundle.isValid());
    EXPECT_EQ(bundle.objectForInfoDictionaryKey(QStringLiteral("Answer")), QVariant(qint64(42)));
    EXPECT_TRUE(bundle.pathForResource(QStringLiteral("Script"), QStringLiteral("sh"))
                    .endsWith(QStringLiteral("/Resources/Script.sh")));
    EXPECT_TRUE(
        bundle.pathForResource(QStringLiteral("README"), QString()).endsWith(QStringLiteral("/README")));
    EXPECT_TRUE(bundle.pathForResource(QStringLiteral("Script"), QStringLiteral("py")).isEmpty());
    EXPECT_TRUE(bundle.pathForResource(QStringLiteral("../Secret"), QStringLiteral("txt")).isEmpty());
    EXPECT_TRUE(bundle.pathForResource(QString(), QStringLiteral("sh")).isEmpty());
}

TEST(Bundle, OpensAppBundlesAmongItsResources)
{
    const Bundle bundle(makeBundleTree());
    const std::optional<Bundle> helper = bundle.appBundleForResource(QStringLiteral("Helper"));
    ASSERT_TRUE(helper.has_value());
    EXPECT_EQ(helper->bundleIdentifier(), QStringLiteral("org.example.helper"));
    EXPECT_EQ(helper->executablePath(), bundle.resourcePath() + QStringLiteral("/Helper.app/Helper"));
    EXPECT_FALSE(bundle.appBundleForResource(QStringLiteral("Broken")).has_value()); // no Info.plist
    EXPECT_FALSE(bundle.appBundleForResource(QStringLiteral("Missing")).has_value());
    EXPECT_TRUE(bundle.executablePath().isEmpty()); // the pane names no executable
}

TEST(Bundle, InvalidBundlesSayWhyAndAnswerNothing)
{
    const QString noInfo = test::makeTempDir();
    const Bundle empty(noInfo);
    EXPECT_FALSE(empty.isValid());
    EXPECT_TRUE(empty.error().contains(QStringLiteral("Info.plist")));
    EXPECT_TRUE(empty.bundleIdentifier().isEmpty());

    const QString arrayInfo = test::makeTempDir();
    ASSERT_TRUE(plist::writeFile(arrayInfo + QStringLiteral("/Info.plist"), QVariantList{qint64(1)}));
    EXPECT_FALSE(Bundle(arrayInfo).isValid());

    const QString garbage = test::makeTempDir();
    writeText(garbage + QStringLiteral("/Info.plist"), "<plist><dict><key>a</key></dict></plist>");
    const Bundle broken(garbage);
    EXPECT_FALSE(broken.isValid());
    EXPECT_TRUE(broken.error().contains(QStringLiteral("line"))) << qPrintable(broken.error());

    EXPECT_FALSE(Bundle(noInfo + QStringLiteral("/absent")).isValid());
}

TEST(Bundle, PaneBundlePathFollowsTheEnvironment)
{
    qputenv("NIMBREL_PANE_BUNDLE", "/opt/elsewhere/Nimbrel.prefPane");
    EXPECT_EQ(Bundle::defaultPaneBundlePath(), QStringLiteral("/opt/elsewhere/Nimbrel.prefPane"));
    qunsetenv("NIMBREL_PANE_BUNDLE");
    EXPECT_TRUE(Bundle::defaultPaneBundlePath().endsWith(QStringLiteral("/lib/nimbrel/Nimbrel.prefPane")));
}

TEST(Strings, TableAnswersSymbolicKeysAndMissingKeysAnswerThemselves)
{
    const Bundle pane(test::paneBundlePath());
    ASSERT_TRUE(pane.loadStringTable(kStringTable));
    EXPECT_TRUE(pane.loadStringTable(kStringTable)); // loading again is harmless
    EXPECT_EQ(localizedString(QStringLiteral("ResetAlertDefaultButton")), QStringLiteral("Reset"));
    EXPECT_EQ(localizedString(QStringLiteral("Quit")), QStringLiteral("Quit"));
    EXPECT_EQ(localizedString(QStringLiteral("A text nobody translated")),
              QStringLiteral("A text nobody translated"));
    EXPECT_EQ(localizedString(QStringLiteral("ResetAlertTitle"), QStringLiteral("OtherTable")),
              QStringLiteral("ResetAlertTitle"));
    EXPECT_FALSE(pane.loadStringTable(QStringLiteral("NoSuchTable")));

    const QString message =
        localizedFormat(QStringLiteral("DisconnectAlertMsg"), {QStringLiteral("Office 100%")});
    EXPECT_TRUE(message.contains(QStringLiteral("Office 100%"))) << qPrintable(message);
    EXPECT_FALSE(message.contains(QStringLiteral("%@")));
}

TEST(Strings, PlaceholdersAreFilledWithoutTakingPercentAsADirective)
{
    const QStringList args{QStringLiteral("one"), QStringLiteral("two")};
    EXPECT_EQ(fillPlaceholders(QStringLiteral("%@ and %@"), args), QStringLiteral("one and two"));
    EXPECT_EQ(fillPlaceholders(QStringLiteral("%2$@ before %1$@"), args), QStringLiteral("two before one"));
    EXPECT_EQ(fillPlaceholders(QStringLiteral("100%% sure, %d %s %"), args),
              QStringLiteral("100% sure, %d %s %"));
    EXPECT_EQ(fillPlaceholders(QStringLiteral("%@|%@|%@"), args), QStringLiteral("one|two|"));
    EXPECT_EQ(fillPlaceholders(QStringLiteral("%3$@%0$@%1$"), args), QStringLiteral("%0$@%1$"));
    // An argument is inserted as it stands, never expanded again.
    EXPECT_EQ(
        fillPlaceholders(QStringLiteral("[%@] %@"), {QStringLiteral("%@ %1$@ %%"), QStringLiteral("x")}),
        QStringLiteral("[%@ %1$@ %%] x"));
    EXPECT_EQ(fillPlaceholders(QString(), args), QString());
}

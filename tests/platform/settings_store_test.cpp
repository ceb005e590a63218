#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QUrl>
#include <gtest/gtest.h>

using namespace nimbrel;

namespace {

QString freshDomain()
{
    return test::makeTempDir() + QStringLiteral("/com.example.domain.plist");
}

QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

const QDateTime kDate = QDateTime(QDate(2024, 2, 29), QTime(23, 59, 58), Qt::UTC);

} // namespace

TEST(SettingsStore, DomainLivesInTheConfigFolder)
{
    EXPECT_EQ(SettingsStore::domainPath(QStringLiteral("com.quorvia.Nimbrel")),
              qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/com.quorvia.Nimbrel.plist"));
}

TEST(SettingsStore, EveryTypeSurvivesTheFileExactly)
{
    const QString path = freshDomain();
    const QVariantMap nested{{QStringLiteral("list"), QVariantList{true, qint64(-3), 2.5}}};
    {
        SettingsStore store(path);
        EXPECT_TRUE(store.setValue(QStringLiteral("bool"), true));
        EXPECT_TRUE(store.setValue(QStringLiteral("int"), 7)); // int is stored as a 64-bit integer
        EXPECT_TRUE(store.setValue(QStringLiteral("real"), 1000000000.0));
        EXPECT_TRUE(store.setValue(QStringLiteral("string"), QStringLiteral("tab\there")));
        EXPECT_TRUE(store.setValue(QStringLiteral("date"), kDate.toLocalTime()));
        EXPECT_TRUE(store.setValue(QStringLiteral("data"), QByteArray("\0\1\2", 3)));
        EXPECT_TRUE(store.setValue(QStringLiteral("dict"), nested));
        EXPECT_EQ(store.status(), QSettings::NoError);
    }
    // What is on disk is a plain property list with the native types.
    const std::optional<QVariant> onDisk = plist::readFile(path);
    ASSERT_TRUE(onDisk.has_value());
    const QVariantMap map = onDisk->toMap();
    EXPECT_EQ(map.value(QStringLiteral("bool")).typeId(), QMetaType::Bool);
    EXPECT_EQ(map.value(QStringLiteral("int")).typeId(), QMetaType::LongLong);
    EXPECT_EQ(map.value(QStringLiteral("real")).typeId(), QMetaType::Double);
    EXPECT_EQ(map.value(QStringLiteral("date")).toDateTime(), kDate);

    SettingsStore reread(path);
    EXPECT_EQ(reread.value(QStringLiteral("bool")).typeId(), QMetaType::Bool);
    EXPECT_EQ(reread.value(QStringLiteral("int")), QVariant(qint64(7)));
    EXPECT_EQ(reread.value(QStringLiteral("string")), QVariant(QStringLiteral("tab\there")));
    EXPECT_EQ(reread.value(QStringLiteral("data")).toByteArray(), QByteArray("\0\1\2", 3));
    EXPECT_EQ(reread.value(QStringLiteral("dict")), QVariant(nested));
    EXPECT_EQ(reread.dateValue(QStringLiteral("date")), kDate);
}

TEST(SettingsStore, TypedReadsIgnoreValuesOfAnotherType)
{
    const QString path = freshDomain();
    ASSERT_TRUE(
        plist::writeFile(path, QVariantMap{
                                   {QStringLiteral("boolAsString"), QStringLiteral("true")},
                                   {QStringLiteral("boolAsNumber"), qint64(1)},
                                   {QStringLiteral("bool"), false},
                                   {QStringLiteral("integer"), qint64(86400)},
                                   {QStringLiteral("real"), 999999999.5},
                                   {QStringLiteral("dateAsString"), QStringLiteral("2001-01-01T00:00:00Z")},
                                   {QStringLiteral("dateAsNumber"), 0.0},
                                   {QStringLiteral("date"), kDate},
                               }));
    SettingsStore store(path);
    EXPECT_EQ(store.boolValue(QStringLiteral("bool")), false);
    EXPECT_EQ(store.boolValue(QStringLiteral("boolAsString")), std::nullopt);
    EXPECT_EQ(store.boolValue(QStringLiteral("boolAsNumber")), std::nullopt);
    EXPECT_EQ(store.boolValue(QStringLiteral("absent")), std::nullopt);

    EXPECT_EQ(store.numberValue(QStringLiteral("integer")), 86400.0);
    EXPECT_EQ(store.numberValue(QStringLiteral("real")), 999999999.5);
    EXPECT_EQ(store.numberValue(QStringLiteral("bool")), std::nullopt); // a boolean is not a number
    EXPECT_EQ(store.numberValue(QStringLiteral("boolAsString")), std::nullopt);

    EXPECT_EQ(store.dateValue(QStringLiteral("date")), kDate);
    EXPECT_EQ(store.dateValue(QStringLiteral("dateAsString")), std::nullopt);
    EXPECT_EQ(store.dateValue(QStringLiteral("dateAsNumber")), std::nullopt);
}

TEST(SettingsStore, NullRemovesAndValuesOutsideTheFormatAreRefused)
{
    const QString path = freshDomain();
    SettingsStore store(path);
    ASSERT_TRUE(store.setValue(QStringLiteral("welcome"), true));
    ASSERT_TRUE(store.setValue(QStringLiteral("keep"), QStringLiteral("me")));
    const QByteArray before = contentsOf(path);

    EXPECT_FALSE(store.setValue(QStringLiteral("url"), QUrl(QStringLiteral("https://example.org"))));
    EXPECT_FALSE(store.setValue(QStringLiteral("nested"), QVariantList{QVariant()}));
    EXPECT_FALSE(store.setValue(QString(), true));
    EXPECT_EQ(contentsOf(path), before);

    EXPECT_TRUE(store.remove(QStringLiteral("welcome")));
    EXPECT_FALSE(store.value(QStringLiteral("welcome")).isValid());
    EXPECT_EQ(SettingsStore(path).keys(), QStringList{QStringLiteral("keep")});
}

TEST(SettingsStore, SyncSeesWhatAnotherWriterPutOnDisk)
{
    const QString path = freshDomain();
    SettingsStore store(path);
    ASSERT_TRUE(store.setValue(QStringLiteral("mine"), qint64(1)));

    // The other process replaces the file with a different one (as its own atomic save would).
    ASSERT_TRUE(
        plist::writeFile(path, QVariantMap{{QStringLiteral("mine"), qint64(1)},
                                           {QStringLiteral("SULastCheckTime"), kDate},
                                           {QStringLiteral("theirs"), QStringLiteral("a longer value")}}));
    EXPECT_TRUE(store.sync());
    EXPECT_EQ(store.dateValue(QStringLiteral("SULastCheckTime")), kDate);

    // Our next write merges with theirs instead of dropping it.
    ASSERT_TRUE(store.setValue(QStringLiteral("mine"), qint64(2)));
    const QVariantMap onDisk = plist::readFile(path)->toMap();
    EXPECT_EQ(onDisk.value(QStringLiteral("theirs")), QVariant(QStringLiteral("a longer value")));
    EXPECT_EQ(onDisk.value(QStringLiteral("mine")), QVariant(qint64(2)));
}

TEST(SettingsStore, WritesLeaveNoTemporaryFilesBehind)
{
    const QString dir = test::makeTempDir();
    SettingsStore store(dir + QStringLiteral("/domain.plist"));
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(store.setValue(QStringLiteral("n"), i));
    EXPECT_EQ(QDir(dir).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("domain.plist")});
}

TEST(SettingsStore, CorruptFileIsReportedAndKeptAsideBeforeItIsWrittenOver)
{
    const QString path = freshDomain();
    const QByteArray garbage = "<plist><dict><key>welcomed</key><true/>"; // cut off mid-file
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(garbage);
    }
    SettingsStore store(path);
    EXPECT_EQ(store.status(), QSettings::FormatError);
    EXPECT_FALSE(store.value(QStringLiteral("welcomed")).isValid());
    const QString copy = store.corruptCopyPath();
    ASSERT_FALSE(copy.isEmpty());
    EXPECT_EQ(contentsOf(copy), garbage);

    // Reading again does not pile up copies of the same bytes.
    SettingsStore again(path);
    EXPECT_EQ(again.corruptCopyPath(), copy);

    EXPECT_TRUE(store.setValue(QStringLiteral("welcomed"), true));
    EXPECT_EQ(contentsOf(copy), garbage);
    EXPECT_EQ(SettingsStore(path).boolValue(QStringLiteral("welcomed")), true);
    EXPECT_TRUE(store.sync());
    EXPECT_EQ(store.status(), QSettings::NoError);

    // A file whose top level is not a dictionary is just as unreadable.
    const QString arrayPath = freshDomain();
    ASSERT_TRUE(plist::writeFile(arrayPath, QVariantList{qint64(1)}));
    SettingsStore arrayStore(arrayPath);
    EXPECT_EQ(arrayStore.status(), QSettings::FormatError);
    EXPECT_FALSE(arrayStore.corruptCopyPath().isEmpty());
}

TEST(SettingsStore, UnwritableLocationIsAnAccessError)
{
    const QString dir = test::makeTempDir();
    QFile blocker(dir + QStringLiteral("/not-a-folder"));
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    SettingsStore store(dir + QStringLiteral("/not-a-folder/domain.plist"));
    EXPECT_FALSE(store.setValue(QStringLiteral("key"), true));
    EXPECT_EQ(store.status(), QSettings::AccessError);
}

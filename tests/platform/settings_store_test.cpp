#include "platform/PlistCodec.h"
#include "platform/SettingsStore.h"
#include "support/PlistCompare.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QUrl>
#include <gtest/gtest.h>

using namespace nimbrel;
using test::identical;

namespace {

const QString kDomain = QStringLiteral("/com.example.domain.plist");
const QDateTime kDate = QDateTime(QDate(2024, 2, 29), QTime(23, 59, 58), Qt::UTC);

QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

TEST(SettingsStore, EveryTypeSurvivesTheFileExactlyAndTypedReadsCheckTheType)
{
    EXPECT_EQ(SettingsStore::domainPath(QStringLiteral("com.quorvia.Nimbrel")),
              qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/com.quorvia.Nimbrel.plist"));

    const QString path = test::makeTempDir() + kDomain;
    const QVariantMap expected{
        {QStringLiteral("bool"), false},
        {QStringLiteral("int"), qint64(7)},
        {QStringLiteral("real"), 999999999.5},
        {QStringLiteral("text"), QStringLiteral("true")},
        {QStringLiteral("dateText"), QStringLiteral("2001-01-01T00:00:00Z")},
        {QStringLiteral("date"), kDate},
        {QStringLiteral("data"), QByteArray("\0\1\2", 3)},
        {QStringLiteral("dict"), QVariantMap{{QStringLiteral("list"), QVariantList{true, 2.5}}}}};
    {
        SettingsStore store(path);
        for (auto it = expected.begin(); it != expected.end(); ++it)
            EXPECT_TRUE(store.setValue(it.key(), it.value())) << qPrintable(it.key());
        // An int is stored as a 64-bit integer, a local date as the same instant in UTC.
        EXPECT_TRUE(store.setValue(QStringLiteral("int"), 7));
        EXPECT_TRUE(store.setValue(QStringLiteral("date"), kDate.toLocalTime()));
        EXPECT_EQ(store.status(), QSettings::NoError);
    }
    // What is on disk is a plain property list with the native types, and it reads back the same.
    EXPECT_TRUE(identical(plist::readFile(path).value_or(QVariant()), expected));
    SettingsStore store(path);
    for (auto it = expected.begin(); it != expected.end(); ++it)
        EXPECT_TRUE(identical(store.value(it.key()), it.value())) << qPrintable(it.key());

    EXPECT_EQ(store.boolValue(QStringLiteral("bool")), false);
    EXPECT_EQ(store.numberValue(QStringLiteral("int")), 7.0);
    EXPECT_EQ(store.numberValue(QStringLiteral("real")), 999999999.5);
    EXPECT_EQ(store.dateValue(QStringLiteral("date")), kDate);
    for (const char* key : {"text", "int", "absent"})
        EXPECT_EQ(store.boolValue(QLatin1String(key)), std::nullopt) << key;
    for (const char* key : {"bool", "text", "absent"}) // a boolean is not a number
        EXPECT_EQ(store.numberValue(QLatin1String(key)), std::nullopt) << key;
    for (const char* key : {"dateText", "real", "absent"})
        EXPECT_EQ(store.dateValue(QLatin1String(key)), std::nullopt) << key;
}

TEST(SettingsStore, RefusalsRemovalsAndWriteErrors)
{
    const QString dir = test::makeTempDir();
    const QString path = dir + kDomain;
    SettingsStore store(path);
    ASSERT_TRUE(store.setValue(QStringLiteral("welcome"), true));
    for (int i = 0; i < 3; ++i)
        ASSERT_TRUE(store.setValue(QStringLiteral("keep"), i));
    const QByteArray before = contentsOf(path);

    // Values outside the format, and an empty key, are refused and leave the file alone.
    EXPECT_FALSE(store.setValue(QStringLiteral("url"), QUrl(QStringLiteral("https://example.org"))));
    EXPECT_FALSE(store.setValue(QStringLiteral("nested"), QVariantList{QVariant()}));
    EXPECT_FALSE(store.setValue(QString(), true));
    EXPECT_EQ(contentsOf(path), before);

    EXPECT_TRUE(store.remove(QStringLiteral("welcome")));
    EXPECT_FALSE(store.value(QStringLiteral("welcome")).isValid());
    EXPECT_EQ(SettingsStore(path).keys(), QStringList{QStringLiteral("keep")});
    EXPECT_EQ(QDir(dir).entryList(QDir::Files | QDir::Hidden), QStringList{kDomain.mid(1)}); // no temporaries

    // A location that cannot be written is an access error.
    SettingsStore blocked(path + QStringLiteral("/domain.plist"));
    EXPECT_FALSE(blocked.setValue(QStringLiteral("key"), true));
    EXPECT_EQ(blocked.status(), QSettings::AccessError);

    // A file that cannot be read fails the write; once it can, the next write reports its own success.
    const QString unreadable = dir + QStringLiteral("/unreadable.plist");
    ASSERT_TRUE(QDir().mkpath(unreadable));
    SettingsStore store2(unreadable);
    EXPECT_FALSE(store2.setValue(QStringLiteral("checkForUpdateInterval"), 86400.0));
    ASSERT_TRUE(QDir().rmdir(unreadable));
    EXPECT_TRUE(store2.setValue(QStringLiteral("checkForUpdateInterval"), 86400.0));
    EXPECT_EQ(store2.status(), QSettings::NoError);
    EXPECT_EQ(SettingsStore(unreadable).numberValue(QStringLiteral("checkForUpdateInterval")), 86400.0);
}

TEST(SettingsStore, SyncSeesWhatAnotherWriterPutOnDisk)
{
    const QString path = test::makeTempDir() + kDomain;
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
    const QVariantMap onDisk = plist::readFile(path).value_or(QVariant()).toMap();
    EXPECT_EQ(onDisk.value(QStringLiteral("theirs")), QVariant(QStringLiteral("a longer value")));
    EXPECT_EQ(onDisk.value(QStringLiteral("mine")), QVariant(qint64(2)));
}

TEST(SettingsStore, CorruptFileIsReportedAndKeptAsideBeforeItIsWrittenOver)
{
    const QString dir = test::makeTempDir();
    const QString path = dir + kDomain;
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
    EXPECT_EQ(SettingsStore(path).corruptCopyPath(), copy); // no pile of copies of the same bytes

    EXPECT_TRUE(store.setValue(QStringLiteral("welcomed"), true));
    EXPECT_EQ(contentsOf(copy), garbage);
    EXPECT_EQ(SettingsStore(path).boolValue(QStringLiteral("welcomed")), true);
    EXPECT_TRUE(store.sync());
    EXPECT_EQ(store.status(), QSettings::NoError);

    // A file whose top level is not a dictionary is just as unreadable.
    const QString arrayPath = dir + QStringLiteral("/array.plist");
    ASSERT_TRUE(plist::writeFile(arrayPath, QVariantList{qint64(1)}));
    SettingsStore arrayStore(arrayPath);
    EXPECT_EQ(arrayStore.status(), QSettings::FormatError);
    EXPECT_FALSE(arrayStore.corruptCopyPath().isEmpty());
}

// Login items as XDG Autostart entries: what we write, how own and foreign entries are listed and
// removed, and the preconditions that end the process.

#include "platform/LoginItemsAE.h"
#include "platform/PlistCodec.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QMap>
#include <gtest/gtest.h>

using namespace nimbrel;

namespace {

void writeFile(const QString& path, const QByteArray& bytes, bool executable = false)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(path);
    file.write(bytes);
    file.close();
    if (executable)
        file.setPermissions(file.permissions() | QFile::ExeOwner | QFile::ExeUser);
}

QString makeProgram(const QString& path)
{
    writeFile(path, "#!/bin/sh\n", true);
    return path;
}

// An app bundle `folder` in `parent` whose Info.plist holds `info` plus CFBundleExecutable "run".
QString makeApp(const QString& parent, const QString& folder, QVariantMap info)
{
    const QString path = parent + QLatin1Char('/') + folder;
    EXPECT_TRUE(QDir().mkpath(path));
    info.insert(QStringLiteral("CFBundleExecutable"), QStringLiteral("run"));
    EXPECT_TRUE(plist::writeFile(path + QStringLiteral("/Info.plist"), info));
    makeProgram(path + QStringLiteral("/run"));
    return path;
}

QString makeApp(const QString& parent, const QString& folder, const QString& identifier)
{
    return makeApp(parent, folder, {{QStringLiteral("CFBundleIdentifier"), identifier}});
}

QString entryPath(const QString& fileName)
{
    return loginItemsFolder() + QLatin1Char('/') + fileName;
}

void writeEntry(const QString& fileName, const QByteArray& text)
{
    QDir().mkpath(loginItemsFolder());
    writeFile(entryPath(fileName), text);
}

// The raw key=value lines of an entry's [Desktop Entry] group, values as written.
QMap<QString, QString> rawKeys(const QString& fileName)
{
    QFile file(entryPath(fileName));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(fileName);
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    EXPECT_EQ(lines.value(0), QStringLiteral("[Desktop Entry]"));
    QMap<QString, QString> keys;
    for (const QString& line : lines.mid(1)) {
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        EXPECT_GT(equals, 0) << qPrintable(line);
        EXPECT_FALSE(keys.contains(line.left(equals))) << "duplicate " << qPrintable(line);
        keys.insert(line.left(equals), line.mid(equals + 1));
    }
    return keys;
}

QVariantList items()
{
    std::unique_ptr<QVariantList> list;
    EXPECT_EQ(LIAECopyLoginItems(&list), noErr);
    return list ? *list : QVariantList();
}

QList<QUrl> urls()
{
    QList<QUrl> result;
    for (const QVariant& item : items())
        result.append(item.toMap().value(QStringLiteral("URL")).toUrl());
    return result;
}

class LoginItems : public ::testing::Test
{
protected:
    // A fresh, private autostart folder for every test, even when the tests share a process.
    void SetUp() override
    {
        m_savedConfig = qgetenv("XDG_CONFIG_HOME");
        qputenv("XDG_CONFIG_HOME", test::makeTempDir().toLocal8Bit());
        ASSERT_TRUE(loginItemsFolder().startsWith(QDir::tempPath()));
        m_apps = test::makeTempDir();
    }
    void TearDown() override { qputenv("XDG_CONFIG_HOME", m_savedConfig); }

    QByteArray m_savedConfig;
    QString m_apps;
};

} // namespace

TEST_F(LoginItems, BundlesRoundTripThroughTheLinksURLs)
{
    const QString plain =
        makeApp(m_apps, QStringLiteral("Nimbrel.app"), QStringLiteral("com.example.Nimbrel"));
    const QString hostile =
        makeApp(m_apps, QStringLiteral("A \\ \"b\" $c %d ü.app"), QStringLiteral("com.example.H"));
    EXPECT_EQ(loginItemURLForPath(plain).toString(),
              QUrl::fromLocalFile(plain).toString() + QLatin1Char('/'));
    EXPECT_EQ(loginItemURLForPath(plain + QStringLiteral("/../Nimbrel.app")), loginItemURLForPath(plain));

    // The link adds with the URL it will match against later.
    ASSERT_EQ(LIAEAddURLAtEnd(loginItemURLForPath(plain), false), noErr);
    ASSERT_EQ(LIAEAddRefAtEnd(hostile, true), noErr);
    const QVariantList listed = items();
    ASSERT_EQ(listed.size(), 2);
    const QVariantMap first = listed.at(0).toMap(), second = listed.at(1).toMap();
    EXPECT_EQ(first.size(), 2);
    EXPECT_EQ(first.value(QStringLiteral("URL")).toUrl(),
              loginItemURLForPath(hostile)); // com.example.H first
    EXPECT_EQ(first.value(QStringLiteral("Hidden")), QVariant(true));
    EXPECT_EQ(second.value(QStringLiteral("URL")).toUrl(), loginItemURLForPath(plain));
    EXPECT_EQ(second.value(QStringLiteral("Hidden")), QVariant(false));

    // A bundle that is gone is still listed, and still matches.
    ASSERT_TRUE(QDir(plain).removeRecursively());
    EXPECT_EQ(urls(), (QList<QUrl>{loginItemURLForPath(hostile), loginItemURLForPath(plain)}));

    ASSERT_EQ(LIAERemove(1), noErr);
    EXPECT_EQ(urls(), QList<QUrl>{loginItemURLForPath(hostile)});
    ASSERT_EQ(LIAERemove(0), noErr);
    EXPECT_TRUE(items().isEmpty());
    EXPECT_TRUE(QDir(loginItemsFolder()).isEmpty());
}

TEST_F(LoginItems, WritesStartableEntries)
{
    const QString tray = makeApp(m_apps, QStringLiteral("Menu.app"),
                                 {{QStringLiteral("CFBundleIdentifier"), QStringLiteral("com.example.menu")},
                                  {QStringLiteral("CFBundleName"), QStringLiteral("Example Menu")},
                                  {QStringLiteral("LSUIElement"), true}});
    const QString unnamed = makeApp(m_apps, QStringLiteral("Plain.app"), QStringLiteral("com.example.plain"));
    const QString program = makeProgram(m_apps + QStringLiteral("/tool"));
    const struct
    {
        QString path, fileName, name, exec, delay, after, bundle, hidden;
    } cases[] = {
        {tray, QStringLiteral("com.example.menu.desktop"), QStringLiteral("Example Menu"),
         tray + QStringLiteral("/run"), QStringLiteral("2"), QStringLiteral("panel"), tray,
         QStringLiteral("true")},
        {unnamed, QStringLiteral("com.example.plain.desktop"), QStringLiteral("Plain"),
         unnamed + QStringLiteral("/run"), QStringLiteral("0"), QString(), unnamed, QStringLiteral("false")},
        {program, QStringLiteral("tool.desktop"), QStringLiteral("tool"), program, QStringLiteral("0"),
         QString(), QString(), QStringLiteral("false")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(qPrintable(c.fileName));
        ASSERT_EQ(LIAEAddRefAtEnd(c.path, c.hidden == QLatin1String("true")), noErr);
        const QMap<QString, QString> keys = rawKeys(c.fileName);
        EXPECT_EQ(keys.value(QStringLiteral("Type")), QStringLiteral("Application"));
        EXPECT_EQ(keys.value(QStringLiteral("Name")), c.name);
        EXPECT_EQ(keys.value(QStringLiteral("Exec")), c.exec);
        EXPECT_EQ(keys.value(QStringLiteral("X-GNOME-Autostart-enabled")), QStringLiteral("true"));
        EXPECT_EQ(keys.value(QStringLiteral("X-GNOME-Autostart-Delay")), c.delay);
        EXPECT_EQ(keys.value(QStringLiteral("X-KDE-autostart-after")), c.after);
        EXPECT_EQ(keys.value(QStringLiteral("X-Nimbrel-Bundle")), c.bundle);
        EXPECT_EQ(keys.value(QStringLiteral("X-Nimbrel-Hidden")), c.hidden);
        EXPECT_FALSE(keys.contains(QStringLiteral("Hidden")));
        EXPECT_EQ(QFile::permissions(entryPath(c.fileName)) & 0x7077, 0x6044); // rw-r--r--
    }
    EXPECT_EQ(urls(), (QList<QUrl>{loginItemURLForPath(tray), loginItemURLForPath(unnamed),
                                   QUrl::fromLocalFile(program)}));
}

// The program path survives the Exec quoting of the entry and its reading back.
TEST_F(LoginItems, ExecQuotingRoundTrip)
{
    const struct
    {
        QString fileName, execTail; // Exec= is <folder>/<execTail>, inside quotes when `quoted`
        bool quoted;
    } cases[] = {
        {QStringLiteral("plain-tool"), QStringLiteral("plain-tool"), false},
        {QStringLiteral("per%cent"), QStringLiteral("per%%cent"), false},
        {QStringLiteral("with space"), QStringLiteral("with space"), true},
        {QStringLiteral("quo\"te"), QStringLiteral("quo\\\\\"te"), true},
        {QStringLiteral("back\\slash"), QStringLiteral("back\\\\\\\\slash"), true},
        {QStringLiteral("dol$lar"), QStringLiteral("dol\\\\$lar"), true},
        {QStringLiteral("tick`and'#;"), QStringLiteral("tick\\\\`and'#;"), true},
        {QStringLiteral("ünï 名 50%"), QStringLiteral("ünï 名 50%%"), true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(qPrintable(c.fileName));
        const QString folder = test::makeTempDir();
        const QString program = makeProgram(folder + QLatin1Char('/') + c.fileName);
        ASSERT_EQ(LIAEAddRefAtEnd(program, false), noErr);
        const QString exec = folder + QLatin1Char('/') + c.execTail;
        EXPECT_EQ(rawKeys(c.fileName + QStringLiteral(".desktop")).value(QStringLiteral("Exec")),
                  c.quoted ? QLatin1Char('"') + exec + QLatin1Char('"') : exec);
        EXPECT_EQ(urls(), QList<QUrl>{QUrl::fromLocalFile(program)});
        ASSERT_EQ(LIAERemove(0), noErr);
    }
}

TEST_F(LoginItems, ForeignEntriesNameTheirProgram)
{
    const QString bin = test::makeTempDir();
    const QString tool = makeProgram(bin + QStringLiteral("/nimbrel-test-tool"));
    const QByteArray savedPath = qgetenv("PATH");
    qputenv("PATH", (bin + QLatin1Char(':')).toLocal8Bit() + savedPath);
    const struct
    {
        QByteArray exec;
        QUrl url;
    } cases[] = {
        {"/usr/bin/foo --flag %U", QUrl::fromLocalFile(QStringLiteral("/usr/bin/foo"))},
        {"\"/opt/My App/bin/run\" %f", QUrl::fromLocalFile(QStringLiteral("/opt/My App/bin/run"))},
        {"\"/opt/a\\\\\\\\b\\\\$c\" x", QUrl::fromLocalFile(QStringLiteral("/opt/a\\b$c"))},
        {"/opt/100%%/run", QUrl::fromLocalFile(QStringLiteral("/opt/100%/run"))},
        {"'/opt/single q/run'", QUrl::fromLocalFile(QStringLiteral("/opt/single q/run"))},
        {"  nimbrel-test-tool --start", QUrl::fromLocalFile(tool)},
        {"no-such-program-anywhere", QUrl::fromLocalFile(QStringLiteral("no-such-program-anywhere"))},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.exec.constData());
        writeEntry(QStringLiteral("foreign.desktop"), "# by hand\n[Desktop Entry]\nType=Application\nName=F\n"
                                                      "Exec = " +
                                                          c.exec + "\n[Desktop Action x]\nExec=/wrong\n");
        const QVariantList listed = items();
        ASSERT_EQ(listed.size(), 1);
        EXPECT_EQ(listed.at(0).toMap().value(QStringLiteral("URL")).toUrl(), c.url);
        EXPECT_EQ(listed.at(0).toMap().value(QStringLiteral("Hidden")), QVariant(false));
    }
    qputenv("PATH", savedPath);

    writeEntry(QStringLiteral("foreign.desktop"),
               "[Desktop Entry]\nType=Application\nExec=/x\nX-Nimbrel-Hidden=true\n");
    EXPECT_EQ(items().value(0).toMap().value(QStringLiteral("Hidden")), QVariant(true));
}

// Deleted (Hidden=true), switched-off and unusable entries are not items: indices skip them, and so does remove.
TEST_F(LoginItems, MixedEntriesListInFileNameOrderAndRemoveByIndex)
{
    const QByteArray foreign = "[Desktop Entry]\nType=Application\nName=Z\nExec=/usr/bin/zed\n";
    writeEntry(QStringLiteral("zz-foreign.desktop"), foreign);
    writeEntry(QStringLiteral("a-foreign.desktop"), "[Desktop Entry]\nType=Application\nExec=/usr/bin/aye\n");
    writeEntry(QStringLiteral("b-deleted.desktop"),
               "[Desktop Entry]\nType=Application\nExec=/x\nHidden=true\n");
    writeEntry(QStringLiteral("b-off.desktop"),
               "[Desktop Entry]\nType=Application\nExec=/x\nX-GNOME-Autostart-enabled=false\n");
    writeEntry(QStringLiteral("c-no-group.desktop"), "Exec=/usr/bin/c\n");
    writeEntry(QStringLiteral("c-no-exec.desktop"), "[Desktop Entry]\nType=Application\nName=C\n");
    writeEntry(QStringLiteral("c-open-quote.desktop"),
               "[Desktop Entry]\nType=Application\nExec=\"/usr/bin/c\n");
    writeEntry(QStringLiteral("c-link.desktop"), "[Desktop Entry]\nType=Link\nURL=https://example.com/\n");
    writeEntry(QStringLiteral("readme.txt"), "[Desktop Entry]\nExec=/usr/bin/readme\n");
    ASSERT_TRUE(QDir().mkpath(entryPath(QStringLiteral("d-folder.desktop"))));
    const QString app = makeApp(m_apps, QStringLiteral("Own.app"), QStringLiteral("com.example.own"));
    ASSERT_EQ(LIAEAddRefAtEnd(app, false), noErr);

    const QUrl aye = QUrl::fromLocalFile(QStringLiteral("/usr/bin/aye"));
    const QUrl zed = QUrl::fromLocalFile(QStringLiteral("/usr/bin/zed"));
    ASSERT_EQ(urls(), (QList<QUrl>{aye, loginItemURLForPath(app), zed}));

    ASSERT_EQ(LIAERemove(1), noErr);
    EXPECT_FALSE(QFile::exists(entryPath(QStringLiteral("com.example.own.desktop"))));
    EXPECT_EQ(urls(), (QList<QUrl>{aye, zed}));
    ASSERT_EQ(LIAERemove(0), noErr);
    EXPECT_FALSE(QFile::exists(entryPath(QStringLiteral("a-foreign.desktop"))));
    EXPECT_EQ(LIAERemove(1), errAEIllegalIndex);

    // What is not an item is left alone; the remaining foreign entry was never rewritten.
    ASSERT_EQ(LIAERemove(0), noErr);
    EXPECT_FALSE(QFile::exists(entryPath(QStringLiteral("zz-foreign.desktop"))));
    EXPECT_EQ(QDir(loginItemsFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size(), 8);
    EXPECT_EQ(LIAERemove(0), errAEIllegalIndex);
}

TEST_F(LoginItems, AddingReplacesAnEntryOfTheSameName)
{
    const QString app = makeApp(m_apps, QStringLiteral("Own.app"), QStringLiteral("com.example.own"));
    writeEntry(QStringLiteral("com.example.own.desktop"),
               "[Desktop Entry]\nType=Application\nExec=/old\nHidden=true\n");
    EXPECT_TRUE(items().isEmpty());
    ASSERT_EQ(LIAEAddRefAtEnd(app, false), noErr);
    ASSERT_EQ(LIAEAddRefAtEnd(app, true), noErr);
    const QVariantList listed = items();
    ASSERT_EQ(listed.size(), 1);
    EXPECT_EQ(listed.at(0).toMap().value(QStringLiteral("URL")).toUrl(), loginItemURLForPath(app));
    EXPECT_EQ(listed.at(0).toMap().value(QStringLiteral("Hidden")), QVariant(true));
}

TEST_F(LoginItems, ErrorCodes)
{
    // No folder yet: an empty list, and listing does not create it.
    EXPECT_TRUE(items().isEmpty());
    EXPECT_FALSE(QFileInfo::exists(loginItemsFolder()));
    EXPECT_EQ(LIAERemove(0), errAEIllegalIndex);

    const QString missing = m_apps + QStringLiteral("/Missing.app");
    const QUrl urlCases[] = {QUrl(), QUrl(QStringLiteral("https://example.com/App.app/")),
                             QUrl::fromLocalFile(missing)};
    for (const QUrl& url : urlCases)
        EXPECT_EQ(LIAEAddURLAtEnd(url, false), fnfErr) << qPrintable(url.toString());
    EXPECT_EQ(LIAEAddRefAtEnd(missing, false), fnfErr);

    QDir().mkpath(m_apps + QStringLiteral("/NoInfo.app"));
    writeFile(m_apps + QStringLiteral("/document.txt"), "text");
    EXPECT_EQ(LIAEAddRefAtEnd(m_apps + QStringLiteral("/NoInfo.app"), false), coreFoundationUnknownErr);
    EXPECT_EQ(LIAEAddRefAtEnd(m_apps + QStringLiteral("/document.txt"), false), coreFoundationUnknownErr);
    EXPECT_FALSE(QFileInfo::exists(loginItemsFolder()));

    // The folder cannot be read or written: a file stands in its place.
    QDir().mkpath(QFileInfo(loginItemsFolder()).path());
    writeFile(loginItemsFolder(), "not a folder");
    std::unique_ptr<QVariantList> list;
    EXPECT_EQ(LIAECopyLoginItems(&list), ioErr);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(LIAEAddRefAtEnd(makeApp(m_apps, QStringLiteral("A.app"), QStringLiteral("a")), false), ioErr);
    EXPECT_EQ(LIAERemove(0), ioErr);
}

TEST_F(LoginItems, BrokenPreconditionsAbortWithTheirExpression)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* const prefix = "LoginItemsAE:[0-9]+: failed assertion `";
    EXPECT_DEATH(LIAECopyLoginItems(nullptr), std::string(prefix) + "itemsPtr != NULL'\n");
    EXPECT_DEATH(
        {
            auto full = std::make_unique<QVariantList>();
            LIAECopyLoginItems(&full);
        },
        std::string(prefix) + "\\*itemsPtr == NULL'\n");
    EXPECT_DEATH(LIAEAddRefAtEnd(QString(), false), std::string(prefix) + "item != NULL'\n");
    EXPECT_DEATH(LIAERemove(-1), std::string(prefix) + "itemIndex >= 0'\n");
}

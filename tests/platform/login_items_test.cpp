// Login items as XDG Autostart entries: what we write, how own and foreign entries are listed and
// removed, and the preconditions that end the process.

#include "platform/LoginItemsAE.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QMap>
#include <gtest/gtest.h>

using namespace nimbrel;

namespace {

using nimbrel::test::s;

using test::writeFile;

QString makeProgram(const QString& path)
{
    return writeFile(path, "#!/bin/sh\n", true);
}

// An app bundle `folder` in `parent` with `identifier` and `extra` in its Info.plist.
QString makeApp(const QString& parent, const char* folder, const char* identifier, QVariantMap extra = {})
{
    return test::makeAppBundle(parent + u'/' + s(folder), s(identifier), s("run"), "#!/bin/sh\n", extra);
}

QString entryPath(const QString& fileName)
{
    return loginItemsFolder() + QLatin1Char('/') + fileName;
}

// The raw key=value lines of an entry's [Desktop Entry] group, values as written.
QMap<QString, QString> rawKeys(const QString& fileName)
{
    QFile file(entryPath(fileName));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << qPrintable(fileName);
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    EXPECT_EQ(lines.value(0), s("[Desktop Entry]"));
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
        result.append(item.toMap().value(s("URL")).toUrl());
    return result;
}

QVariant hidden(int index)
{
    return items().value(index).toMap().value(s("Hidden"));
}

class LoginItems : public ::testing::Test
{
protected:
    // A fresh, private autostart folder for every test, even when the tests share a process.
    void SetUp() override
    {
        qputenv("XDG_CONFIG_HOME", test::makeTempDir().toLocal8Bit());
        ASSERT_TRUE(loginItemsFolder().startsWith(QDir::tempPath()));
    }
    void TearDown() override { qputenv("XDG_CONFIG_HOME", m_savedConfig); }

    QByteArray m_savedConfig = qgetenv("XDG_CONFIG_HOME");
    QString m_apps = test::makeTempDir();
};

} // namespace

TEST_F(LoginItems, BundlesRoundTripThroughTheLinksURLsAndReplaceTheirEntry)
{
    const QString plain = makeApp(m_apps, "Nimbrel.app", "com.example.Nimbrel");
    const QString hostile = makeApp(m_apps, "A \\ \"b\" $c %d ü.app", "com.example.H");
    EXPECT_EQ(loginItemURLForPath(plain).toString(),
              QUrl::fromLocalFile(plain).toString() + QLatin1Char('/'));
    EXPECT_EQ(loginItemURLForPath(plain + s("/../Nimbrel.app")), loginItemURLForPath(plain));

    // The link adds with the URL it will match against later; adding again replaces the entry.
    writeFile(entryPath(s("com.example.H.desktop")),
              "[Desktop Entry]\nType=Application\nExec=/old\nHidden=true\n");
    ASSERT_EQ(LIAEAddURLAtEnd(loginItemURLForPath(plain), false), noErr);
    ASSERT_EQ(LIAEAddRefAtEnd(hostile, false), noErr);
    ASSERT_EQ(LIAEAddRefAtEnd(hostile, true), noErr);
    EXPECT_EQ(items().value(0).toMap().size(), 2);
    EXPECT_EQ(hidden(0), QVariant(true));
    EXPECT_EQ(hidden(1), QVariant(false));
    const QList<QUrl> both{loginItemURLForPath(hostile), loginItemURLForPath(plain)}; // com.example.H first
    EXPECT_EQ(urls(), both);

    // A bundle that is gone is still listed, and still matches.
    ASSERT_TRUE(QDir(plain).removeRecursively());
    EXPECT_EQ(urls(), both);
    ASSERT_EQ(LIAERemove(1), noErr);
    EXPECT_EQ(urls(), QList<QUrl>{loginItemURLForPath(hostile)});
    ASSERT_EQ(LIAERemove(0), noErr);
    EXPECT_TRUE(QDir(loginItemsFolder()).isEmpty());
}

TEST_F(LoginItems, WritesStartableEntries)
{
    const QString tray = makeApp(m_apps, "Menu.app", "com.example.menu",
                                 {{s("CFBundleName"), s("Example Menu")}, {s("LSUIElement"), true}});
    const QString unnamed = makeApp(m_apps, "Plain.app", "com.example.plain");
    const QString program = makeProgram(m_apps + s("/tool"));
    const struct
    {
        QString path;
        const char *fileName, *name;
        QString exec;
        const char* delay;
        const char* after;
        QString bundle;
        bool hidden;
    } cases[] = {
        {tray, "com.example.menu.desktop", "Example Menu", tray + s("/run"), "2", "panel", tray, true},
        {unnamed, "com.example.plain.desktop", "Plain", unnamed + s("/run"), "0", "", unnamed, false},
        {program, "tool.desktop", "tool", program, "0", "", QString(), false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fileName);
        ASSERT_EQ(LIAEAddRefAtEnd(c.path, c.hidden), noErr);
        const QMap<QString, QString> keys = rawKeys(s(c.fileName));
        const std::pair<const char*, QString> expected[] = {
            {"Type", s("Application")},
            {"Name", s(c.name)},
            {"Exec", c.exec},
            {"X-GNOME-Autostart-enabled", s("true")},
            {"X-GNOME-Autostart-Delay", s(c.delay)},
            {"X-KDE-autostart-after", s(c.after)},
            {"X-Nimbrel-Bundle", c.bundle},
            {"X-Nimbrel-Hidden", s(c.hidden ? "true" : "false")},
        };
        for (const auto& [key, value] : expected)
            EXPECT_EQ(keys.value(s(key)), value) << key;
        EXPECT_FALSE(keys.contains(s("Hidden")));
        EXPECT_EQ(QFile::permissions(entryPath(s(c.fileName))) & 0x7077, 0x6044); // rw-r--r--
    }
    EXPECT_EQ(urls(), (QList<QUrl>{loginItemURLForPath(tray), loginItemURLForPath(unnamed),
                                   QUrl::fromLocalFile(program)}));
}

// The program path survives the Exec quoting of the entry and its reading back.
TEST_F(LoginItems, ExecQuotingRoundTrip)
{
    const struct
    {
        const char *fileName, *execTail; // Exec= is <folder>/<execTail>, inside quotes when `quoted`
        bool quoted;
    } cases[] = {
        {"plain-tool", "plain-tool", false},        {"per%cent", "per%%cent", false},
        {"with space", "with space", true},         {"quo\"te", "quo\\\\\"te", true},
        {"back\\slash", "back\\\\\\\\slash", true}, {"dol$lar", "dol\\\\$lar", true},
        {"tick`and'#;", "tick\\\\`and'#;", true},   {"ünï 名 50%", "ünï 名 50%%", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.fileName);
        const QString folder = test::makeTempDir();
        const QString program = makeProgram(folder + QLatin1Char('/') + s(c.fileName));
        ASSERT_EQ(LIAEAddRefAtEnd(program, false), noErr);
        const QString exec = folder + QLatin1Char('/') + s(c.execTail);
        EXPECT_EQ(rawKeys(s(c.fileName) + s(".desktop")).value(s("Exec")),
                  c.quoted ? QLatin1Char('"') + exec + QLatin1Char('"') : exec);
        EXPECT_EQ(urls(), QList<QUrl>{QUrl::fromLocalFile(program)});
        ASSERT_EQ(LIAERemove(0), noErr);
    }
}

TEST_F(LoginItems, ForeignEntriesNameTheirProgram)
{
    const QString bin = test::makeTempDir();
    const QString tool = makeProgram(bin + s("/nimbrel-test-tool"));
    const QByteArray savedPath = qgetenv("PATH");
    qputenv("PATH", (bin + QLatin1Char(':')).toLocal8Bit() + savedPath);
    const std::pair<QByteArray, QString> cases[] = {
        {"/usr/bin/foo --flag %U", s("/usr/bin/foo")},
        {"\"/opt/My App/bin/run\" %f", s("/opt/My App/bin/run")},
        {"\"/opt/a\\\\\\\\b\\\\$c\" x", s("/opt/a\\b$c")},
        {"/opt/100%%/run", s("/opt/100%/run")},
        {"'/opt/single q/run'", s("/opt/single q/run")},
        {"  nimbrel-test-tool --start", tool},
        {"no-such-program-anywhere", s("no-such-program-anywhere")},
    };
    for (const auto& [exec, program] : cases) {
        SCOPED_TRACE(exec.constData());
        writeFile(entryPath(s("foreign.desktop")),
                  "# by hand\n[Desktop Entry]\nType=Application\nName=F\nExec = " + exec +
                      "\n[Desktop Action x]\nExec=/wrong\n");
        EXPECT_EQ(urls(), QList<QUrl>{QUrl::fromLocalFile(program)});
        EXPECT_EQ(hidden(0), QVariant(false));
    }
    qputenv("PATH", savedPath);
    writeFile(entryPath(s("foreign.desktop")),
              "[Desktop Entry]\nType=Application\nExec=/x\nX-Nimbrel-Hidden=true\n");
    EXPECT_EQ(hidden(0), QVariant(true));
}

// Deleted (Hidden=true), switched-off and unusable entries are not items: indices skip them, and so does
// remove.
TEST_F(LoginItems, MixedEntriesListInFileNameOrderAndRemoveByIndex)
{
    const std::pair<const char*, QByteArray> entries[] = {
        {"zz-foreign.desktop", "[Desktop Entry]\nType=Application\nName=Z\nExec=/usr/bin/zed\n"},
        {"a-foreign.desktop", "[Desktop Entry]\nType=Application\nExec=/usr/bin/aye\n"},
        {"b-deleted.desktop", "[Desktop Entry]\nType=Application\nExec=/x\nHidden=true\n"},
        {"b-off.desktop", "[Desktop Entry]\nType=Application\nExec=/x\nX-GNOME-Autostart-enabled=false\n"},
        {"c-no-group.desktop", "Exec=/usr/bin/c\n"},
        {"c-no-exec.desktop", "[Desktop Entry]\nType=Application\nName=C\n"},
        {"c-open-quote.desktop", "[Desktop Entry]\nType=Application\nExec=\"/usr/bin/c\n"},
        {"c-link.desktop", "[Desktop Entry]\nType=Link\nURL=https://example.com/\n"},
        {"readme.txt", "[Desktop Entry]\nExec=/usr/bin/readme\n"},
    };
    for (const auto& [name, text] : entries)
        writeFile(entryPath(s(name)), text);
    ASSERT_TRUE(QDir().mkpath(entryPath(s("d-folder.desktop"))));
    const QString app = makeApp(m_apps, "Own.app", "com.example.own");
    ASSERT_EQ(LIAEAddRefAtEnd(app, false), noErr);

    const QUrl aye = QUrl::fromLocalFile(s("/usr/bin/aye")), zed = QUrl::fromLocalFile(s("/usr/bin/zed"));
    ASSERT_EQ(urls(), (QList<QUrl>{aye, loginItemURLForPath(app), zed}));
    ASSERT_EQ(LIAERemove(1), noErr);
    EXPECT_FALSE(QFile::exists(entryPath(s("com.example.own.desktop"))));
    EXPECT_EQ(urls(), (QList<QUrl>{aye, zed}));
    ASSERT_EQ(LIAERemove(0), noErr);
    EXPECT_FALSE(QFile::exists(entryPath(s("a-foreign.desktop"))));
    EXPECT_EQ(LIAERemove(1), errAEIllegalIndex);

    // What is not an item is left alone.
    ASSERT_EQ(LIAERemove(0), noErr);
    EXPECT_FALSE(QFile::exists(entryPath(s("zz-foreign.desktop"))));
    EXPECT_EQ(QDir(loginItemsFolder()).entryList(QDir::AllEntries | QDir::NoDotAndDotDot).size(), 8);
    EXPECT_EQ(LIAERemove(0), errAEIllegalIndex);
}

TEST_F(LoginItems, ErrorCodes)
{
    // No folder yet: an empty list, and listing does not create it.
    EXPECT_TRUE(items().isEmpty());
    EXPECT_FALSE(QFileInfo::exists(loginItemsFolder()));
    EXPECT_EQ(LIAERemove(0), errAEIllegalIndex);

    const QString missing = m_apps + s("/Missing.app");
    for (const QUrl& url : {QUrl(), QUrl(s("https://example.com/App.app/")), QUrl::fromLocalFile(missing)})
        EXPECT_EQ(LIAEAddURLAtEnd(url, false), fnfErr) << qPrintable(url.toString());
    EXPECT_EQ(LIAEAddRefAtEnd(missing, false), fnfErr);
    QDir().mkpath(m_apps + s("/NoInfo.app"));
    EXPECT_EQ(LIAEAddRefAtEnd(m_apps + s("/NoInfo.app"), false), coreFoundationUnknownErr);
    EXPECT_EQ(LIAEAddRefAtEnd(writeFile(m_apps + s("/document.txt"), "text"), false),
              coreFoundationUnknownErr);
    EXPECT_FALSE(QFileInfo::exists(loginItemsFolder()));

    // The folder cannot be read or written: a file stands in its place.
    writeFile(loginItemsFolder(), "not a folder");
    std::unique_ptr<QVariantList> list;
    EXPECT_EQ(LIAECopyLoginItems(&list), ioErr);
    EXPECT_EQ(list, nullptr);
    EXPECT_EQ(LIAEAddRefAtEnd(makeApp(m_apps, "A.app", "a"), false), ioErr);
    EXPECT_EQ(LIAERemove(0), ioErr);
}

TEST_F(LoginItems, BrokenPreconditionsAbortWithTheirExpression)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const std::string prefix = "LoginItemsAE:[0-9]+: failed assertion `";
    EXPECT_DEATH(LIAECopyLoginItems(nullptr), prefix + "itemsPtr != NULL'\n");
    EXPECT_DEATH(
        {
            auto full = std::make_unique<QVariantList>();
            LIAECopyLoginItems(&full);
        },
        prefix + "\\*itemsPtr == NULL'\n");
    EXPECT_DEATH(LIAEAddRefAtEnd(QString(), false), prefix + "item != NULL'\n");
    EXPECT_DEATH(LIAERemove(-1), prefix + "itemIndex >= 0'\n");
}

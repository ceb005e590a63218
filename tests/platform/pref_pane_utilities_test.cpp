#include "platform/Bundle.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/SystemVersion.h"

#include <QAbstractButton>
#include <QApplication>
#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageBox>
#include <QTimer>
#include <QTranslator>
#include <QUrl>
#include <gtest/gtest.h>
#include <optional>

using namespace nimbrel;

namespace {

// Sets (or unsets, with nullopt) an environment variable for the life of the object.
class ScopedEnv
{
public:
    ScopedEnv(const char* name, std::optional<QByteArray> value)
        : m_name(name), m_had(qEnvironmentVariableIsSet(name)), m_old(qgetenv(name))
    {
        if (value)
            qputenv(name, *value);
        else
            qunsetenv(name);
    }
    ~ScopedEnv()
    {
        if (m_had)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }

private:
    const char* m_name;
    bool m_had;
    QByteArray m_old;
};

void writeFile(const QString& path, const QByteArray& contents)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    file.write(contents);
}

QString emailDefaultsPath()
{
    return qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/emaildefaults");
}

} // namespace

// ---------------------------------------------------------------------------------------------------

TEST(PrefPaneUtilitiesTest, ValuesEqualTreatsNullAsOwnValue)
{
    EXPECT_TRUE(valuesEqual(QVariant(), QVariant()));
    EXPECT_FALSE(valuesEqual(QVariant(), QVariant(0)));
    EXPECT_FALSE(valuesEqual(QVariant(QString()), QVariant()));
    EXPECT_TRUE(valuesEqual(QVariant(QStringLiteral("a")), QVariant(QStringLiteral("a"))));
    EXPECT_FALSE(valuesEqual(QVariant(QStringLiteral("a")), QVariant(QStringLiteral("b"))));

    const QString a = QStringLiteral("x"), b = QStringLiteral("x"), c = QStringLiteral("y");
    EXPECT_TRUE(valuesEqual<QString>(nullptr, nullptr));
    EXPECT_FALSE(valuesEqual<QString>(&a, nullptr));
    EXPECT_TRUE(valuesEqual(&a, &b));
    EXPECT_FALSE(valuesEqual(&a, &c));
}

TEST(PrefPaneUtilitiesTest, FirstObjectAndRemoveFirstOnEmptyAndFilledLists)
{
    QList<QVariant> empty;
    EXPECT_FALSE(firstObject(empty).isValid());
    removeFirstObject(empty);
    EXPECT_TRUE(empty.isEmpty());

    QList<int*> pointers;
    EXPECT_EQ(firstObject(pointers), nullptr);

    QList<QString> names{QStringLiteral("a"), QStringLiteral("b")};
    EXPECT_EQ(firstObject(names), QStringLiteral("a"));
    removeFirstObject(names);
    EXPECT_EQ(names, QList<QString>{QStringLiteral("b")});
}

TEST(PrefPaneUtilitiesTest, MailToEncodingEscapesOnlyWhatMustBe)
{
    EXPECT_EQ(stringByMailToEncoding(QStringLiteral("Nimbrel Logs")), QStringLiteral("Nimbrel%20Logs"));
    EXPECT_EQ(stringByMailToEncoding(QStringLiteral("a&b=c")), QStringLiteral("a&b=c"));
    EXPECT_EQ(stringByMailToEncoding(QStringLiteral("100%25")), QStringLiteral("100%25"));
    EXPECT_EQ(stringByMailToEncoding(QString::fromUtf8("\xc3\xa9")), QStringLiteral("%C3%A9"));

    const QString kept = QStringLiteral("AZaz09-_.!~*'();/?:@&=+$,%");
    EXPECT_EQ(stringByMailToEncoding(kept), kept);
    EXPECT_EQ(stringByMailToEncoding(QStringLiteral("\"<>#[]{}|\\^`")),
              QStringLiteral("%22%3C%3E%23%5B%5D%7B%7D%7C%5C%5E%60"));
    EXPECT_EQ(stringByMailToEncoding(QStringLiteral("a\nb\tc")), QStringLiteral("a%0Ab%09c"));
    EXPECT_EQ(stringByMailToEncoding(QString::fromUtf8("\xe2\x82\xac")), QStringLiteral("%E2%82%AC"));
    EXPECT_EQ(stringByMailToEncoding(QStringLiteral("mailto:x@y.org?subject=Hi there")),
              QStringLiteral("mailto:x@y.org?subject=Hi%20there"));
}

// ---------------------------------------------------------------------------------------------------
// userEmail

TEST(PrefPaneUtilitiesTest, UserEmailPrefersEnvironment)
{
    writeFile(emailDefaultsPath(), "[PROFILE_Main]\nEmailAddress=file@example.org\n");
    {
        ScopedEnv env("EMAIL", QByteArray("plain@example.org"));
        EXPECT_EQ(PrefPaneUtilities::userEmail(), QStringLiteral("plain@example.org"));
    }
    {
        ScopedEnv env("EMAIL", QByteArray("Jane Roe <jane@example.org>"));
        EXPECT_EQ(PrefPaneUtilities::userEmail(), QStringLiteral("jane@example.org"));
    }
    {
        ScopedEnv env("EMAIL", QByteArray(""));
        EXPECT_EQ(PrefPaneUtilities::userEmail(), QStringLiteral("file@example.org"));
    }
    QFile::remove(emailDefaultsPath());
}

TEST(PrefPaneUtilitiesTest, UserEmailFromKdeDefaultsProfile)
{
    ScopedEnv env("EMAIL", std::nullopt);
    writeFile(emailDefaultsPath(), "[PROFILE_Other]\n"
                                   "EmailAddress=other@example.org\n"
                                   "\n"
                                   "[Defaults]\n"
                                   "Profile=Work Mail\n"
                                   "\n"
                                   "# comment\n"
                                   "[PROFILE_Work Mail]\n"
                                   "FullName=Roe, Jane\n"
                                   "EmailAddress = jane.roe+cal@example.org\n");
    EXPECT_EQ(PrefPaneUtilities::userEmail(), QStringLiteral("jane.roe+cal@example.org"));
    QFile::remove(emailDefaultsPath());
}

TEST(PrefPaneUtilitiesTest, UserEmailFallsBackToFirstProfileWithAddress)
{
    ScopedEnv env("EMAIL", std::nullopt);
    // The default profile names a group without an address; the first profile with one wins.
    writeFile(emailDefaultsPath(), "[Defaults]\n"
                                   "Profile=Gone\n"
                                   "[PROFILE_Empty]\n"
                                   "FullName=Nobody\n"
                                   "[PROFILE_100%]\n"
                                   "EmailAddress=first@example.org\n"
                                   "[PROFILE_Later]\n"
                                   "EmailAddress=later@example.org\n");
    EXPECT_EQ(PrefPaneUtilities::userEmail(), QStringLiteral("first@example.org"));
    QFile::remove(emailDefaultsPath());
}

TEST(PrefPaneUtilitiesTest, UserEmailUsesHomeConfigWhenXdgUnsetAndIsEmptyWithoutSource)
{
    ScopedEnv email("EMAIL", std::nullopt);
    EXPECT_TRUE(PrefPaneUtilities::userEmail().isEmpty());

    ScopedEnv xdg("XDG_CONFIG_HOME", std::nullopt);
    const QString path = QDir::homePath() + QStringLiteral("/.config/emaildefaults");
    writeFile(path, "[PROFILE_Home]\nEmailAddress=home@example.org\n");
    EXPECT_EQ(PrefPaneUtilities::userEmail(), QStringLiteral("home@example.org"));
    QFile::remove(path);
}

// ---------------------------------------------------------------------------------------------------
// Start-up guard

namespace {

// Records what the guard does with its hooks, in order.
class StartupGuardTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        PrefPaneUtilities::setStartupGuardHooks(
            [this](const PrefPaneUtilities::AlertTexts& texts) {
                alerts.append(texts);
                events.append(QStringLiteral("alert"));
                return answer;
            },
            [this](const QString& url) { events.append(QStringLiteral("open ") + url); },
            [this] { events.append(QStringLiteral("terminate")); });
    }
    void TearDown() override
    {
        PrefPaneUtilities::setStartupGuardHooks({}, {}, {});
        setSystemVersionSource(nullptr);
    }

    PrefPaneUtilities::AlertButton answer = PrefPaneUtilities::AlertButton::Default;
    QList<PrefPaneUtilities::AlertTexts> alerts;
    QStringList events;
};

// Answers every key of one context with a marked text, as a loaded string table would.
class MarkingTranslator : public QTranslator
{
public:
    QString translate(const char* context, const char* sourceText, const char*, int) const override
    {
        if (qstrcmp(context, "GuardTable") != 0)
            return QString();
        return QStringLiteral("<") + QString::fromUtf8(sourceText) + QStringLiteral(">");
    }
    bool isEmpty() const override { return false; }
};

} // namespace

TEST_F(StartupGuardTest, PassesOnTigerWithoutAlert)
{
    setSystemVersionSource(fixedSystemVersion(0x100400));
    PrefPaneUtilities::tigerRequired(Bundle(), QStringLiteral("NimbrelPref"));
    EXPECT_TRUE(events.isEmpty());
}

TEST_F(StartupGuardTest, QuitOnOlderSystemTerminatesWithoutOpening)
{
    setSystemVersionSource(fixedSystemVersion(0x100309));
    PrefPaneUtilities::tigerRequired(Bundle(), QStringLiteral("NimbrelPref"));
    ASSERT_EQ(alerts.size(), 1);
    EXPECT_EQ(alerts[0].title, QStringLiteral("Mac OS X 10.4 Required"));
    EXPECT_EQ(alerts[0].message, QStringLiteral("Mac OS X 10.4 or greater is required."));
    EXPECT_EQ(alerts[0].defaultButton, QStringLiteral("Quit"));
    EXPECT_EQ(alerts[0].alternateButton, QStringLiteral("More Info..."));
    EXPECT_EQ(events, (QStringList{QStringLiteral("alert"), QStringLiteral("terminate")}));
}

TEST_F(StartupGuardTest, MoreInfoOpensVendorPageThenTerminates)
{
    setSystemVersionSource(fixedSystemVersion(0x100309));
    answer = PrefPaneUtilities::AlertButton::Alternate;
    PrefPaneUtilities::tigerRequired(Bundle(), QStringLiteral("NimbrelPref"));
    EXPECT_EQ(events, (QStringList{QStringLiteral("alert"),
                                   QStringLiteral("open ") + PrefPaneUtilities::vendorProductPage(),
                                   QStringLiteral("terminate")}));
}

TEST_F(StartupGuardTest, AlertTextsComeFromTheNamedTable)
{
    MarkingTranslator translator;
    QCoreApplication::installTranslator(&translator);
    setSystemVersionSource(fixedSystemVersion(0x100309));
    PrefPaneUtilities::tigerRequired(Bundle(), QStringLiteral("GuardTable"));
    QCoreApplication::removeTranslator(&translator);
    ASSERT_EQ(alerts.size(), 1);
    EXPECT_EQ(alerts[0].title, QStringLiteral("<Mac OS X 10.4 Required>"));
    EXPECT_EQ(alerts[0].message, QStringLiteral("<Mac OS X 10.4 or greater is required.>"));
    EXPECT_EQ(alerts[0].defaultButton, QStringLiteral("<Quit>"));
    EXPECT_EQ(alerts[0].alternateButton, QStringLiteral("<More Info...>"));
}

TEST_F(StartupGuardTest, DefaultAlertShowsBothButtonsAndReportsTheClick)
{
    setSystemVersionSource(fixedSystemVersion(0x100309));
    for (const QString& click : {QStringLiteral("Quit"), QStringLiteral("More Info...")}) {
        events.clear();
        PrefPaneUtilities::setStartupGuardHooks(
            {}, [this](const QString& url) { events.append(QStringLiteral("open ") + url); },
            [this] { events.append(QStringLiteral("terminate")); });
        QString shownText;
        QStringList buttons;
        // Clicks as soon as the alert is on screen.
        QTimer clicker;
        QObject::connect(&clicker, &QTimer::timeout, [&] {
            for (QWidget* widget : QApplication::topLevelWidgets()) {
                auto* box = qobject_cast<QMessageBox*>(widget);
                if (!box || !box->isVisible())
                    continue;
                clicker.stop();
                shownText = box->text() + QLatin1Char('|') + box->informativeText();
                for (QAbstractButton* button : box->buttons())
                    buttons.append(button->text());
                for (QAbstractButton* button : box->buttons()) {
                    if (button->text() == click)
                        button->click();
                }
                return;
            }
        });
        clicker.start(10);
        PrefPaneUtilities::tigerRequired(Bundle(), QStringLiteral("NimbrelPref"));
        EXPECT_EQ(shownText, QStringLiteral("Mac OS X 10.4 Required|Mac OS X 10.4 or greater is required."));
        EXPECT_TRUE(buttons.contains(QStringLiteral("Quit")) &&
                    buttons.contains(QStringLiteral("More Info...")));
        EXPECT_EQ(events.size(), click == QStringLiteral("Quit") ? 1 : 2) << click.toStdString();
        EXPECT_EQ(events.last(), QStringLiteral("terminate"));
    }
}

TEST(PrefPaneUtilitiesTest, VendorProductPageIsAWebAddress)
{
    const QUrl url(PrefPaneUtilities::vendorProductPage());
    EXPECT_TRUE(url.isValid());
    EXPECT_TRUE(url.scheme() == QLatin1String("https") || url.scheme() == QLatin1String("http"));
    EXPECT_FALSE(url.host().isEmpty());
    // Quoting from os-release must be gone.
    EXPECT_FALSE(PrefPaneUtilities::vendorProductPage().contains(QLatin1Char('"')));
}

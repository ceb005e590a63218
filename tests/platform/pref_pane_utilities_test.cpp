#include "platform/Bundle.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/SystemVersion.h"
#include "platform/gui/GuiHooks.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMessageBox>
#include <QTimer>
#include <QTranslator>
#include <QUrl>
#include <gtest/gtest.h>
#include <optional>
#include <tuple>

using namespace nimbrel;
using Alert = PrefPaneUtilities::AlertButton;

namespace {

void setEnv(const char* name, const char* value)
{
    value ? qputenv(name, value) : qunsetenv(name);
}

// Writes the file, or removes it when `contents` is null.
void writeFile(const QString& path, const char* contents)
{
    QFile::remove(path);
    if (!contents)
        return;
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(contents);
}

} // namespace

TEST(PrefPaneUtilitiesTest, NilSafeEqualityAndFirstObject)
{
    EXPECT_TRUE(valuesEqual(QVariant(), QVariant()));
    EXPECT_FALSE(valuesEqual(QVariant(), QVariant(0)));
    EXPECT_FALSE(valuesEqual(QVariant(QString()), QVariant()));
    EXPECT_FALSE(valuesEqual(QVariant(QStringLiteral("a")), QVariant(QStringLiteral("b"))));
    const QString a = QStringLiteral("x"), b = QStringLiteral("x");
    EXPECT_TRUE(valuesEqual<QString>(nullptr, nullptr));
    EXPECT_FALSE(valuesEqual<QString>(&a, nullptr));
    EXPECT_TRUE(valuesEqual(&a, &b));

    QList<QVariant> empty;
    EXPECT_FALSE(firstObject(empty).isValid());
    EXPECT_EQ(firstObject(QList<int*>()), nullptr);
    removeFirstObject(empty); // harmless on an empty list
}

TEST(PrefPaneUtilitiesTest, MailToEncodingEscapesOnlyWhatMustBe)
{
    const std::pair<const char*, const char*> cases[] = {
        {"Nimbrel Logs", "Nimbrel%20Logs"},
        {"AZaz09-_.!~*'();/?:@&=+$,%", "AZaz09-_.!~*'();/?:@&=+$,%"},
        {"100%25", "100%25"},
        {"\"<>#[]{}|\\^`", "%22%3C%3E%23%5B%5D%7B%7D%7C%5C%5E%60"},
        {"a\nb\tc", "a%0Ab%09c"},
        {"\xc3\xa9\xe2\x82\xac", "%C3%A9%E2%82%AC"},
        {"mailto:x@y.org?subject=Hi there", "mailto:x@y.org?subject=Hi%20there"},
    };
    for (const auto& [in, out] : cases)
        EXPECT_EQ(stringByMailToEncoding(QString::fromUtf8(in)), QLatin1String(out)) << in;
}

TEST(PrefPaneUtilitiesTest, UserEmailFromTheEnvironmentThenTheKdeDefaults)
{
    const QString path = qEnvironmentVariable("XDG_CONFIG_HOME") + QStringLiteral("/emaildefaults");
    const char* simple = "[PROFILE_Main]\nEmailAddress=file@example.org\n";
    const char* named =
        "[PROFILE_Other]\nEmailAddress=other@example.org\n\n[Defaults]\nProfile=Work Mail\n\n"
        "# comment\n[PROFILE_Work Mail]\nFullName=Roe, Jane\nEmailAddress = jane.roe+cal@example.org\n";
    // The default profile names a group without an address: the first profile with one wins.
    const char* fallback =
        "[Defaults]\nProfile=Gone\n[PROFILE_Empty]\nFullName=Nobody\n"
        "[PROFILE_100%]\nEmailAddress=first@example.org\n[PROFILE_Later]\nEmailAddress=later@example.org\n";
    const std::tuple<const char*, const char*, const char*> cases[] = {
        // $EMAIL, file, address
        {"plain@example.org", simple, "plain@example.org"},
        {"Jane Roe <jane@example.org>", simple, "jane@example.org"},
        {"", simple, "file@example.org"},
        {nullptr, named, "jane.roe+cal@example.org"},
        {nullptr, fallback, "first@example.org"},
        {nullptr, nullptr, ""},
    };
    for (const auto& [email, file, expected] : cases) {
        setEnv("EMAIL", email);
        writeFile(path, file);
        EXPECT_EQ(PrefPaneUtilities::userEmail(), QLatin1String(expected));
    }

    // Without XDG_CONFIG_HOME the file is looked for in ~/.config.
    const QByteArray xdg = qgetenv("XDG_CONFIG_HOME");
    setEnv("XDG_CONFIG_HOME", nullptr);
    writeFile(QDir::homePath() + QStringLiteral("/.config/emaildefaults"),
              "[PROFILE_Home]\nEmailAddress=home@example.org\n");
    EXPECT_EQ(PrefPaneUtilities::userEmail(), QStringLiteral("home@example.org"));
    setEnv("XDG_CONFIG_HOME", xdg.constData());
}

// ---------------------------------------------------------------------------------------------------
// Start-up guard

namespace {

class StartupGuardTest : public ::testing::Test
{
protected:
    // Records what the guard does with its hooks, in order; a null `answer` keeps the real alert.
    void hook(std::optional<Alert> answer)
    {
        PrefPaneUtilities::AlertFunction alert;
        if (answer) {
            alert = [this, answer](const PrefPaneUtilities::AlertTexts& texts) {
                alerts << QStringList{texts.title, texts.message, texts.defaultButton, texts.alternateButton}
                              .join(QLatin1Char('|'));
                events.append(QStringLiteral("alert"));
                return *answer;
            };
        }
        PrefPaneUtilities::setStartupGuardHooks(
            alert, [this](const QString& url) { events.append(QStringLiteral("open ") + url); },
            [this] { events.append(QStringLiteral("terminate")); });
    }
    void TearDown() override
    {
        PrefPaneUtilities::setStartupGuardHooks({}, {}, {});
        setSystemVersionSource(nullptr);
    }

    QStringList alerts, events;
    const QString kTexts =
        QStringLiteral("Mac OS X 10.4 Required|Mac OS X 10.4 or greater is required.|Quit|More Info...");
};

// Answers every key of one context with a marked text, as a loaded string table would.
class MarkingTranslator : public QTranslator
{
public:
    QString translate(const char* context, const char* sourceText, const char*, int) const override
    {
        if (qstrcmp(context, "GuardTable") != 0)
            return QString();
        return QLatin1Char('<') + QString::fromUtf8(sourceText) + QLatin1Char('>');
    }
    bool isEmpty() const override { return false; }
};

} // namespace

TEST_F(StartupGuardTest, PassesFrom10_4AndOtherwiseAlertsOpensMoreInfoThenTerminates)
{
    const QString page = PrefPaneUtilities::vendorProductPage();
    const QUrl url(page);
    EXPECT_TRUE(url.isValid() && !url.host().isEmpty()) << qPrintable(page);
    EXPECT_TRUE(url.scheme() == QLatin1String("https") || url.scheme() == QLatin1String("http"));
    EXPECT_FALSE(page.contains(QLatin1Char('"'))); // quoting from os-release is gone

    const std::tuple<quint32, Alert, QString> cases[] = {
        {0x100400, Alert::Default, QString()},
        {0x100309, Alert::Default, QStringLiteral("alert|terminate")},
        {0x100309, Alert::Alternate, QStringLiteral("alert|open ") + page + QStringLiteral("|terminate")},
    };
    for (const auto& [version, answer, expected] : cases) {
        events.clear();
        hook(answer);
        setSystemVersionSource(fixedSystemVersion(version));
        PrefPaneUtilities::tigerRequired(Bundle(), QStringLiteral("NimbrelPref"));
        EXPECT_EQ(events.join(QLatin1Char('|')), expected);
    }
    ASSERT_EQ(alerts.size(), 2);
    EXPECT_EQ(alerts[0], kTexts);

    // The texts come from the named table.
    MarkingTranslator translator;
    QCoreApplication::installTranslator(&translator);
    PrefPaneUtilities::tigerRequired(Bundle(), QStringLiteral("GuardTable"));
    QCoreApplication::removeTranslator(&translator);
    EXPECT_EQ(alerts.value(2),
              QStringLiteral(
                  "<Mac OS X 10.4 Required>|<Mac OS X 10.4 or greater is required.>|<Quit>|<More Info...>"));
}

TEST_F(StartupGuardTest, DefaultAlertShowsTheTextsAndBothButtonsAndReportsTheClick)
{
    setSystemVersionSource(fixedSystemVersion(0x100309));
    hook(std::nullopt);
    PrefPaneUtilities::setStartupGuardHooks(
        messageBoxAlert, [this](const QString& url) { events.append(QStringLiteral("open ") + url); },
        [this] { events.append(QStringLiteral("terminate")); });
    for (const QString& click : {QStringLiteral("Quit"), QStringLiteral("More Info...")}) {
        events.clear();
        QString shown;
        QTimer clicker; // clicks as soon as the alert is on screen
        QObject::connect(&clicker, &QTimer::timeout, [&] {
            auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
            if (!box || !box->isVisible())
                return;
            clicker.stop();
            shown = box->text() + QLatin1Char('|') + box->informativeText();
            for (QAbstractButton* button : box->buttons()) {
                shown += QLatin1Char('|') + button->text();
                if (button->text() == click)
                    button->click();
            }
        });
        clicker.start(10);
        PrefPaneUtilities::tigerRequired(Bundle(), QStringLiteral("NimbrelPref"));
        EXPECT_EQ(shown, kTexts);
        EXPECT_EQ(events.join(QLatin1Char('|')).startsWith(QLatin1String("open ")),
                  click != QLatin1String("Quit"));
        EXPECT_EQ(events.last(), QStringLiteral("terminate"));
    }
}

#include "platform/Bundle.h"
#include "platform/PrefPaneUtilities.h"
#include "platform/SystemVersion.h"
#include "platform/gui/GuiHooks.h"
#include "support/TestEnvironment.h"

#include <QAbstractButton>
#include <QApplication>
#include <QDir>
#include <QFile>
#include <QMessageBox>
#include <QTimer>
#include <QTranslator>
#include <QUrl>
#include <gtest/gtest.h>
#include <tuple>

using namespace nimbrel;
using test::s;
using Alert = PrefPaneUtilities::AlertButton;

TEST(PrefPaneUtilities, NilSafeEqualityListHelpersAndMailToEncoding)
{
    EXPECT_TRUE(valuesEqual(QVariant(), QVariant()));
    EXPECT_FALSE(valuesEqual(QVariant(), QVariant(0)) || valuesEqual(QVariant(QString()), QVariant()));
    const QString a = s("x"), b = s("x");
    EXPECT_TRUE(valuesEqual<QString>(nullptr, nullptr) && valuesEqual(&a, &b));
    EXPECT_FALSE(valuesEqual<QString>(&a, nullptr));
    QList<QVariant> empty;
    EXPECT_FALSE(firstObject(empty).isValid());
    removeFirstObject(empty); // harmless on an empty list

    const std::pair<const char*, const char*> cases[] = {
        {"AZaz09-_.!~*'();/?:@&=+$,%", "AZaz09-_.!~*'();/?:@&=+$,%"}, // kept, so a prepared URL stays one
        {"100%25", "100%25"},
        {"\"<>#[]{}|\\^` \n", "%22%3C%3E%23%5B%5D%7B%7D%7C%5C%5E%60%20%0A"},
        {"\xc3\xa9\xe2\x82\xac", "%C3%A9%E2%82%AC"},
    };
    for (const auto& [in, out] : cases)
        EXPECT_EQ(stringByMailToEncoding(s(in)), QLatin1String(out)) << in;
}

TEST(PrefPaneUtilities, UserEmailFromTheEnvironmentThenTheKdeDefaults)
{
    const QString path = qEnvironmentVariable("XDG_CONFIG_HOME") + s("/emaildefaults");
    const char* simple = "[PROFILE_Main]\nEmailAddress=file@example.org\n";
    const char* named = "[PROFILE_Other]\nEmailAddress=other@example.org\n\n[Defaults]\nProfile=Work Mail\n\n"
                        "# comment\n[PROFILE_Work Mail]\nEmailAddress[$e] = jane.roe\\s+cal@example.org\n";
    // The default profile names a group without an address: the first profile with one wins.
    const char* fallback =
        "[Defaults]\nProfile=Gone\n[PROFILE_Empty]\nFullName=Nobody\n"
        "[PROFILE_100%]\nEmailAddress=first@example.org\n[PROFILE_Later]\nEmailAddress=x@y\n";
    const std::tuple<const char*, const char*, const char*> cases[] = {
        // $EMAIL, file, address
        {"Jane Roe <jane@example.org>", simple, "jane@example.org"},
        {"", simple, "file@example.org"},
        {nullptr, named, "jane.roe +cal@example.org"},
        {nullptr, fallback, "first@example.org"},
        {nullptr, nullptr, ""},
    };
    for (const auto& [email, file, expected] : cases) {
        email ? qputenv("EMAIL", email) : qunsetenv("EMAIL");
        QFile::remove(path);
        if (file)
            test::writeFile(path, file);
        EXPECT_EQ(PrefPaneUtilities::userEmail(), QLatin1String(expected));
    }
    // Without XDG_CONFIG_HOME the file is looked for in ~/.config.
    const QByteArray xdg = qgetenv("XDG_CONFIG_HOME");
    qunsetenv("XDG_CONFIG_HOME");
    test::writeFile(QDir::homePath() + s("/.config/emaildefaults"),
                    "[PROFILE_Home]\nEmailAddress=home@example.org\n");
    EXPECT_EQ(PrefPaneUtilities::userEmail(), s("home@example.org"));
    qputenv("XDG_CONFIG_HOME", xdg);
}

namespace {

// Answers every key of one context with a marked text, as a loaded string table would.
class MarkingTranslator : public QTranslator
{
public:
    QString translate(const char* context, const char* sourceText, const char*, int) const override
    {
        return qstrcmp(context, "GuardTable") ? QString() : u'<' + s(sourceText) + u'>';
    }
    bool isEmpty() const override { return false; }
};

} // namespace

// The start-up guard passes from 10.4 on; before, it alerts (texts from the named table), opens the
// vendor's page on "More Info..." and terminates. The GUI's alert is a message box with both buttons.
TEST(StartupGuard, AlertsOpensMoreInfoAndTerminatesBelow10_4)
{
    const QString page = PrefPaneUtilities::vendorProductPage();
    EXPECT_TRUE(QUrl(page).isValid() && !QUrl(page).host().isEmpty()) << qPrintable(page);
    EXPECT_FALSE(page.contains(u'"')); // quoting from os-release is gone
    QStringList events;
    const auto hooks = [&events](PrefPaneUtilities::AlertFunction alert) {
        PrefPaneUtilities::setStartupGuardHooks(
            alert, [&events](const QString& url) { events << s("open ") + url; },
            [&events] { events << s("terminate"); });
    };
    const std::tuple<quint32, std::optional<Alert>, QString> cases[] = {
        {0x100400, Alert::Default, QString()},
        {0x100309, Alert::Default, s("alert <Mac OS X 10.4 Required>|terminate")},
        {0x100309, Alert::Alternate, s("alert <Mac OS X 10.4 Required>|open ") + page + s("|terminate")},
        {0x100309, std::nullopt,
         s("Mac OS X 10.4 Required|Mac OS X 10.4 or greater is required.|Quit|More Info...|terminate")},
        {0x100309, std::nullopt,
         s("Mac OS X 10.4 Required|Mac OS X 10.4 or greater is required.|Quit|More Info...|open ") + page +
             s("|terminate")},
    };
    MarkingTranslator translator;
    for (const auto& [version, answer, expected] : cases) {
        events.clear();
        setSystemVersionSource(fixedSystemVersion(version));
        QTimer clicker; // the message box: clicks as soon as it is on screen
        if (answer) {
            hooks([&events, answer = *answer](const PrefPaneUtilities::AlertTexts& texts) {
                events << s("alert ") + texts.title;
                return answer;
            });
            QCoreApplication::installTranslator(&translator);
        } else {
            hooks(messageBoxAlert);
            const QString click = expected.contains(s("open ")) ? s("More Info...") : s("Quit");
            QObject::connect(&clicker, &QTimer::timeout, [&events, &clicker, click] {
                auto* box = qobject_cast<QMessageBox*>(QApplication::activeModalWidget());
                if (!box || !box->isVisible())
                    return;
                clicker.stop();
                events << box->text() << box->informativeText();
                for (QAbstractButton* button : box->buttons())
                    events << button->text();
                for (QAbstractButton* button : box->buttons())
                    if (button->text() == click)
                        button->click();
            });
            clicker.start(10);
        }
        PrefPaneUtilities::tigerRequired(Bundle(), s(answer ? "GuardTable" : "NimbrelPref"));
        QCoreApplication::removeTranslator(&translator);
        EXPECT_EQ(events.join(u'|'), expected);
    }
    PrefPaneUtilities::setStartupGuardHooks({}, {}, {});
    setSystemVersionSource(nullptr);
}

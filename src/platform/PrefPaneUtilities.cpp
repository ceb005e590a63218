#include "platform/PrefPaneUtilities.h"

#include "platform/KeyValueFile.h"
#include "platform/NSURLConnectionMonitor.h"
#include "platform/Strings.h"
#include "platform/SystemVersion.h"

#include <QDir>
#include <QUrl>

namespace nimbrel {

bool valuesEqual(const QVariant& a, const QVariant& b)
{
    if (!a.isValid() || !b.isValid())
        return !a.isValid() && !b.isValid();
    return a == b;
}

// ---------------------------------------------------------------------------------------------------
// mailto escaping

namespace {

// Characters that may stay as they are: unreserved and reserved URL characters, plus "%" so that an
// existing escape survives.
bool keptInMailTo(char c)
{
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))
        return true;
    static constexpr char kept[] = "-_.!~*'();/?:@&=+$,%";
    for (const char k : kept) {
        if (k != '\0' && k == c)
            return true;
    }
    return false;
}

} // namespace

QString stringByMailToEncoding(const QString& string)
{
    static constexpr char hex[] = "0123456789ABCDEF";
    const QByteArray utf8 = string.toUtf8();
    QByteArray escaped;
    escaped.reserve(utf8.size() * 3);
    for (const char c : utf8) {
        if (keptInMailTo(c)) {
            escaped += c;
        } else {
            const auto byte = static_cast<unsigned char>(c);
            escaped += '%';
            escaped += hex[byte >> 4];
            escaped += hex[byte & 0xF];
        }
    }
    return QString::fromLatin1(escaped);
}

// ---------------------------------------------------------------------------------------------------
// The user's e-mail address

namespace {

// "Name <addr>" gives addr; anything else is taken as the address itself.
QString addressFromMailbox(const QString& mailbox)
{
    const qsizetype open = mailbox.lastIndexOf(QLatin1Char('<'));
    const qsizetype close = mailbox.lastIndexOf(QLatin1Char('>'));
    if (open >= 0 && close > open)
        return mailbox.mid(open + 1, close - open - 1).trimmed();
    return mailbox.trimmed();
}

// Undoes the escapes the KDE configuration writer uses in values.
QString unescapeConfigValue(const QString& raw)
{
    QString value;
    value.reserve(raw.size());
    for (qsizetype i = 0; i < raw.size(); ++i) {
        const QChar c = raw.at(i);
        if (c != QLatin1Char('\\') || i + 1 >= raw.size()) {
            value += c;
            continue;
        }
        const QChar next = raw.at(++i);
        switch (next.unicode()) {
        case 's':
            value += QLatin1Char(' ');
            break;
        case 't':
            value += QLatin1Char('\t');
            break;
        case 'n':
            value += QLatin1Char('\n');
            break;
        case 'r':
            value += QLatin1Char('\r');
            break;
        default:
            value += next; // "\\", "\;", "\," and anything unknown: the character itself
            break;
        }
    }
    return value;
}

QString configHome()
{
    const QString xdg = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (!xdg.isEmpty() && QDir::isAbsolutePath(xdg))
        return xdg;
    return QDir::homePath() + QLatin1String("/.config");
}

QString emailFromKdeDefaults()
{
    static const QString profilePrefix = QStringLiteral("PROFILE_");
    static const QString addressKey = QStringLiteral("EmailAddress");
    // Values keep the KDE writer's escapes; flags such as "[$e]" after a key do not change the key.
    QList<KeyValueGroup> groups =
        readKeyValueFile(configHome() + QLatin1String("/emaildefaults")).value_or(QList<KeyValueGroup>());
    for (KeyValueGroup& group : groups) {
        for (auto& [key, value] : group.entries) {
            if (const qsizetype flags = key.indexOf(QLatin1String("[$")); flags > 0)
                key = key.left(flags).trimmed();
            value = unescapeConfigValue(value.trimmed());
        }
    }
    const auto entry = [](const KeyValueGroup& group, const QString& key) {
        return group.value(key).value_or(QString());
    };

    QString defaultProfile;
    for (const KeyValueGroup& group : groups) {
        if (group.name == QLatin1String("Defaults") && group.value(QStringLiteral("Profile")))
            defaultProfile = entry(group, QStringLiteral("Profile"));
    }
    if (!defaultProfile.isEmpty()) {
        for (const KeyValueGroup& group : groups) {
            if (group.name == profilePrefix + defaultProfile) {
                const QString address = entry(group, addressKey).trimmed();
                if (!address.isEmpty())
                    return address;
            }
        }
    }
    for (const KeyValueGroup& group : groups) {
        if (!group.name.startsWith(profilePrefix))
            continue;
        const QString address = entry(group, addressKey).trimmed();
        if (!address.isEmpty())
            return address;
    }
    return QString();
}

} // namespace

QString PrefPaneUtilities::userEmail()
{
    const QString fromEnvironment = addressFromMailbox(qEnvironmentVariable("EMAIL"));
    if (!fromEnvironment.isEmpty())
        return fromEnvironment;
    return emailFromKdeDefaults();
}

// ---------------------------------------------------------------------------------------------------
// Fire-and-forget request

void PrefPaneUtilities::getNothingFromURL(const QString& url)
{
    const QUrl parsed(url);
    if (parsed.isEmpty() || !parsed.isValid())
        return;
    NSURLConnectionMonitor::connectionWithRequest(QNetworkRequest(parsed));
}

} // namespace nimbrel

#include "platform/PrefPaneUtilities.h"

#include "platform/NSURLConnectionMonitor.h"
#include "platform/Strings.h"
#include "platform/SystemVersion.h"

#include <QDir>
#include <QFile>
#include <QHash>
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

struct ConfigGroup
{
    QString name;
    QHash<QString, QString> entries;
};

// A small reader for the INI dialect of KDE configuration files. QSettings is not used: its INI
// format decodes "%" sequences in group names and splits values at commas.
QList<ConfigGroup> readConfigFile(const QString& path)
{
    QList<ConfigGroup> groups;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return groups;
    while (!file.atEnd()) {
        const QString line = QString::fromUtf8(file.readLine()).trimmed();
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        if (line.startsWith(QLatin1Char('['))) {
            const qsizetype close = line.indexOf(QLatin1Char(']'));
            if (close > 0)
                groups.append({line.mid(1, close - 1), {}});
            continue;
        }
        const qsizetype equals = line.indexOf(QLatin1Char('='));
        if (equals <= 0 || groups.isEmpty())
            continue;
        QString key = line.left(equals).trimmed();
        // Flags such as "[$e]" after the key do not change which entry it is.
        if (const qsizetype flags = key.indexOf(QLatin1String("[$")); flags > 0)
            key = key.left(flags).trimmed();
        groups.last().entries.insert(key, unescapeConfigValue(line.mid(equals + 1).trimmed()));
    }
    return groups;
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
    const QList<ConfigGroup> groups = readConfigFile(configHome() + QLatin1String("/emaildefaults"));

    QString defaultProfile;
    for (const ConfigGroup& group : groups) {
        if (group.name == QLatin1String("Defaults") && group.entries.contains(QStringLiteral("Profile")))
            defaultProfile = group.entries.value(QStringLiteral("Profile"));
    }
    if (!defaultProfile.isEmpty()) {
        for (const ConfigGroup& group : groups) {
            if (group.name == profilePrefix + defaultProfile) {
                const QString address = group.entries.value(addressKey).trimmed();
                if (!address.isEmpty())
                    return address;
            }
        }
    }
    for (const ConfigGroup& group : groups) {
        if (!group.name.startsWith(profilePrefix))
            continue;
        const QString address = group.entries.value(addressKey).trimmed();
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

#include "platform/LoginItemsAE.h"

#include "platform/Bundle.h"
#include "platform/KeyValueFile.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QHash>
#include <QLoggingCategory>
#include <QSaveFile>
#include <QStandardPaths>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <optional>

namespace nimbrel {

namespace {

Q_LOGGING_CATEGORY(lcLoginItems, "nimbrel.loginitems")

// Broken preconditions end the process, with the expression as the caller's code spells it.
[[noreturn]] void failedAssertion(unsigned line, const char* expression)
{
    std::fprintf(stderr, "%s:%u: failed assertion `%s'\n", "LoginItemsAE", line, expression);
    std::fflush(stderr);
    std::abort();
}

#define LIAE_REQUIRE(condition, text)                                                                        \
    do {                                                                                                     \
        if (!(condition))                                                                                    \
            failedAssertion(__LINE__, text);                                                                 \
    } while (0)

// Entries larger than this are not login items anyone wrote by hand or by tool; they are skipped unread.
constexpr qint64 kMaxEntrySize = 1024 * 1024;

const QString kGroup = QStringLiteral("Desktop Entry");
const QString kBundleKey = QStringLiteral("X-Nimbrel-Bundle");
const QString kHiddenKey = QStringLiteral("X-Nimbrel-Hidden");

// --- Values of type string: \s \n \t \r \\ escapes.

QString escapeValue(const QString& value)
{
    QString out;
    out.reserve(value.size());
    for (qsizetype i = 0; i < value.size(); ++i) {
        const QChar c = value.at(i);
        if (c == QLatin1Char('\\'))
            out += QLatin1String("\\\\");
        else if (c == QLatin1Char('\n'))
            out += QLatin1String("\\n");
        else if (c == QLatin1Char('\t'))
            out += QLatin1String("\\t");
        else if (c == QLatin1Char('\r'))
            out += QLatin1String("\\r");
        else if (c == QLatin1Char(' ') && i == 0) // leading blanks would be taken for layout
            out += QLatin1String("\\s");
        else
            out += c;
    }
    return out;
}

QString unescapeValue(const QString& value)
{
    QString out;
    out.reserve(value.size());
    for (qsizetype i = 0; i < value.size(); ++i) {
        const QChar c = value.at(i);
        if (c != QLatin1Char('\\') || i + 1 == value.size()) {
            out += c;
            continue;
        }
        const QChar next = value.at(++i);
        switch (next.unicode()) {
        case 's':
            out += QLatin1Char(' ');
            break;
        case 'n':
            out += QLatin1Char('\n');
            break;
        case 't':
            out += QLatin1Char('\t');
            break;
        case 'r':
            out += QLatin1Char('\r');
            break;
        case '\\':
            out += QLatin1Char('\\');
            break;
        default: // not an escape of this level: leave it for the Exec quoting rules
            out += c;
            out += next;
        }
    }
    return out;
}

// --- Exec arguments: quoting with "…" and backslash, "%%" for a literal percent sign.

QString quoteExecArgument(const QString& argument)
{
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    const bool needsQuotes = argument.isEmpty() || std::any_of(argument.begin(), argument.end(), [](QChar c) {
                                 return reserved.contains(c) || c.unicode() < 0x20;
                             });
    QString out;
    if (needsQuotes)
        out += QLatin1Char('"');
    for (const QChar c : argument) {
        if (needsQuotes && (c == QLatin1Char('"') || c == QLatin1Char('`') || c == QLatin1Char('$') ||
                            c == QLatin1Char('\\')))
            out += QLatin1Char('\\');
        if (c == QLatin1Char('%'))
            out += QLatin1Char('%');
        out += c;
    }
    if (needsQuotes)
        out += QLatin1Char('"');
    return out;
}

// "%%" is a percent sign; any other field code ("%f", "%U", …) stands for nothing here.
QString expandFieldCodes(const QString& token)
{
    QString out;
    for (qsizetype i = 0; i < token.size(); ++i) {
        if (token.at(i) != QLatin1Char('%') || i + 1 == token.size()) {
            out += token.at(i);
            continue;
        }
        if (token.at(++i) == QLatin1Char('%'))
            out += QLatin1Char('%');
    }
    return out;
}

// Splits an (already unescaped) Exec value into arguments. Double quotes take backslash escapes of
// " ` $ \; single quotes and bare backslashes are accepted as well, as entries written by hand use them.
// An unterminated quote makes the line unusable.
std::optional<QStringList> splitExec(const QString& exec)
{
    enum class State
    {
        Plain,
        Double,
        Single
    } state = State::Plain;
    QStringList arguments;
    QString current;
    bool inArgument = false;
    for (qsizetype i = 0; i < exec.size(); ++i) {
        const QChar c = exec.at(i);
        switch (state) {
        case State::Double:
            if (c == QLatin1Char('\\') && i + 1 < exec.size() &&
                QStringLiteral("\"`$\\").contains(exec.at(i + 1)))
                current += exec.at(++i);
            else if (c == QLatin1Char('"'))
                state = State::Plain;
            else
                current += c;
            break;
        case State::Single:
            if (c == QLatin1Char('\''))
                state = State::Plain;
            else
                current += c;
            break;
        case State::Plain:
            if (c == QLatin1Char(' ') || c == QLatin1Char('\t') || c == QLatin1Char('\n')) {
                if (inArgument)
                    arguments.append(expandFieldCodes(current));
                current.clear();
                inArgument = false;
                break;
            }
            inArgument = true;
            if (c == QLatin1Char('"'))
                state = State::Double;
            else if (c == QLatin1Char('\''))
                state = State::Single;
            else if (c == QLatin1Char('\\') && i + 1 < exec.size())
                current += exec.at(++i);
            else
                current += c;
            break;
        }
    }
    if (state != State::Plain)
        return std::nullopt;
    if (inArgument)
        arguments.append(expandFieldCodes(current));
    return arguments;
}

bool isTrueValue(const QString& value)
{
    return value == QLatin1String("true") || value == QLatin1String("1");
}

// The keys of the [Desktop Entry] group, values unescaped; nullopt when the file cannot be read or
// has no such group.
std::optional<QHash<QString, QString>> readDesktopEntry(const QString& path)
{
    const std::optional<QList<KeyValueGroup>> groups = readKeyValueFile(path, kMaxEntrySize);
    if (!groups)
        return std::nullopt;
    QHash<QString, QString> keys;
    bool sawGroup = false;
    for (const KeyValueGroup& group : *groups) {
        if (group.name != kGroup)
            continue;
        sawGroup = true;
        for (const auto& [key, value] : group.entries) {
            if (!keys.contains(key))
                keys.insert(key, unescapeValue(value));
        }
    }
    if (!sawGroup)
        return std::nullopt;
    return keys;
}

// The file URL of the program an Exec line starts.
QUrl programURL(const QString& program)
{
    if (program.contains(QLatin1Char('/'))) // absolute, or relative to nothing we know: as written
        return QUrl::fromLocalFile(program);
    const QString found = QStandardPaths::findExecutable(program);
    return QUrl::fromLocalFile(found.isEmpty() ? program : found);
}

struct Entry
{
    QString path;
    QVariantMap item;
};

// The login item an entry stands for. Deleted entries (Hidden=true) are none, and so are entries the
// user switched off in the desktop's startup settings (X-GNOME-Autostart-enabled=false): neither starts
// at login, so neither may be shown as starting. Entries that cannot be understood are none either,
// with a warning.
std::optional<QVariantMap> itemForEntry(const QString& path)
{
    const std::optional<QHash<QString, QString>> keys = readDesktopEntry(path);
    if (!keys) {
        qCWarning(lcLoginItems, "Skipping login item %s: no readable [Desktop Entry] group",
                  qPrintable(path));
        return std::nullopt;
    }
    if (isTrueValue(keys->value(QStringLiteral("Hidden"))))
        return std::nullopt;
    if (keys->value(QStringLiteral("X-GNOME-Autostart-enabled")).trimmed() == QLatin1String("false"))
        return std::nullopt;
    const QString type = keys->value(QStringLiteral("Type"), QStringLiteral("Application"));
    if (type != QLatin1String("Application")) {
        qCWarning(lcLoginItems, "Skipping login item %s: type %s", qPrintable(path), qPrintable(type));
        return std::nullopt;
    }
    QUrl url;
    const QString bundle = keys->value(kBundleKey);
    if (!bundle.isEmpty()) {
        url = loginItemURLForPath(bundle);
    } else {
        const std::optional<QStringList> arguments = splitExec(keys->value(QStringLiteral("Exec")));
        if (!arguments || arguments->isEmpty() || arguments->first().isEmpty()) {
            qCWarning(lcLoginItems, "Skipping login item %s: no program in its Exec line", qPrintable(path));
            return std::nullopt;
        }
        url = programURL(arguments->first());
    }
    return QVariantMap{{QStringLiteral("URL"), url},
                       {QStringLiteral("Hidden"), isTrueValue(keys->value(kHiddenKey))}};
}

// Every login item with the entry it comes from, in file-name order.
OSStatus scanEntries(QList<Entry>* entries)
{
    const QString folder = loginItemsFolder();
    const QFileInfo info(folder);
    if (!info.exists())
        return noErr;
    if (!info.isDir() || !info.isReadable())
        return ioErr;
    QStringList names = QDir(folder).entryList(
        {QStringLiteral("*.desktop")},
        QDir::Files | QDir::Hidden | QDir::CaseSensitive | QDir::NoDotAndDotDot, QDir::NoSort);
    std::sort(names.begin(), names.end());
    for (const QString& name : std::as_const(names)) {
        const QString path = folder + QLatin1Char('/') + name;
        if (std::optional<QVariantMap> item = itemForEntry(path))
            entries->append({path, std::move(*item)});
    }
    return noErr;
}

// Info.plist flags come as <true/>, a number or a string such as "1" or "YES".
bool isTrueFlag(const QVariant& value)
{
    if (value.typeId() == QMetaType::Bool)
        return value.toBool();
    if (value.typeId() == QMetaType::QString) {
        const QString text = value.toString();
        return text == QLatin1String("1") || text.compare(QLatin1String("yes"), Qt::CaseInsensitive) == 0 ||
               text.compare(QLatin1String("true"), Qt::CaseInsensitive) == 0;
    }
    return value.canConvert<double>() && value.toDouble() != 0;
}

struct NewEntry
{
    QString fileName;   // of the entry, in the autostart folder
    QString name;       // Name=
    QString executable; // absolute path of the program to start
    QString bundlePath; // empty for a plain program
    bool tray = false;
};

std::optional<NewEntry> describe(const QString& absolutePath)
{
    const QFileInfo info(absolutePath);
    NewEntry entry;
    if (info.isDir()) {
        const Bundle bundle(absolutePath);
        if (!bundle.isValid() || bundle.executablePath().isEmpty())
            return std::nullopt;
        QString identifier = bundle.bundleIdentifier();
        identifier.replace(QLatin1Char('/'), QLatin1Char('_'));
        entry.fileName = (identifier.isEmpty() ? info.fileName() : identifier) + QStringLiteral(".desktop");
        entry.name = bundle.objectForInfoDictionaryKey(QStringLiteral("CFBundleName")).toString();
        if (entry.name.isEmpty()) {
            entry.name = info.fileName();
            if (entry.name.endsWith(QLatin1String(".app")))
                entry.name.chop(4);
        }
        entry.executable = bundle.executablePath();
        entry.bundlePath = absolutePath;
        entry.tray = isTrueFlag(bundle.objectForInfoDictionaryKey(QStringLiteral("LSUIElement")));
        return entry;
    }
    if (!info.isFile() || !info.isExecutable())
        return std::nullopt;
    entry.fileName = info.fileName() + QStringLiteral(".desktop");
    entry.name = info.fileName();
    entry.executable = absolutePath;
    return entry;
}

QByteArray entryText(const NewEntry& entry, bool hidden)
{
    QString text = QStringLiteral("[Desktop Entry]\nType=Application\nVersion=1.5\n");
    text += QStringLiteral("Name=") + escapeValue(entry.name) + QLatin1Char('\n');
    text += QStringLiteral("Exec=") + escapeValue(quoteExecArgument(entry.executable)) + QLatin1Char('\n');
    text += QStringLiteral("X-GNOME-Autostart-enabled=true\n");
    text += QStringLiteral("X-GNOME-Autostart-Delay=%1\n").arg(entry.tray ? 2 : 0);
    if (entry.tray)
        text += QStringLiteral("X-KDE-autostart-after=panel\n");
    if (!entry.bundlePath.isEmpty())
        text += kBundleKey + QLatin1Char('=') + escapeValue(entry.bundlePath) + QLatin1Char('\n');
    text += kHiddenKey + (hidden ? QStringLiteral("=true\n") : QStringLiteral("=false\n"));
    return text.toUtf8();
}

} // namespace

QString loginItemsFolder()
{
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart");
}

QUrl loginItemURLForPath(const QString& path)
{
    const QFileInfo info(path);
    const QString absolute = QDir::cleanPath(info.absoluteFilePath());
    const bool plainFile = info.exists() && !info.isDir();
    return QUrl::fromLocalFile(
        plainFile || absolute.endsWith(QLatin1Char('/')) ? absolute : absolute + QLatin1Char('/'));
}

OSStatus LIAECopyLoginItems(std::unique_ptr<QVariantList>* itemsPtr)
{
    LIAE_REQUIRE(itemsPtr != nullptr, "itemsPtr != NULL");
    LIAE_REQUIRE(*itemsPtr == nullptr, "*itemsPtr == NULL");
    QList<Entry> entries;
    const OSStatus err = scanEntries(&entries);
    if (err == noErr) {
        auto items = std::make_unique<QVariantList>();
        items->reserve(entries.size());
        for (const Entry& entry : std::as_const(entries))
            items->append(entry.item);
        *itemsPtr = std::move(items);
    }
    LIAE_REQUIRE((err == noErr) == (*itemsPtr != nullptr), "(err == noErr) == (*itemsPtr != NULL)");
    return err;
}

OSStatus LIAEAddRefAtEnd(const QString& path, bool hideIt)
{
    LIAE_REQUIRE(!path.isEmpty(), "item != NULL");
    const QFileInfo info(path);
    if (!info.exists())
        return fnfErr;
    const std::optional<NewEntry> entry = describe(QDir::cleanPath(info.absoluteFilePath()));
    if (!entry)
        return coreFoundationUnknownErr;

    const QString folder = loginItemsFolder();
    if (!QDir().mkpath(folder))
        return ioErr;
    const QString entryPath = folder + QLatin1Char('/') + entry->fileName;
    QSaveFile file(entryPath);
    if (!file.open(QIODevice::WriteOnly))
        return ioErr;
    const QByteArray text = entryText(*entry, hideIt);
    if (file.write(text) != text.size() || !file.commit())
        return ioErr;
    QFile::setPermissions(entryPath,
                          QFile::ReadOwner | QFile::WriteOwner | QFile::ReadGroup | QFile::ReadOther);
    return noErr;
}

OSStatus LIAEAddURLAtEnd(const QUrl& item, bool hideIt)
{
    if (!item.isLocalFile())
        return fnfErr;
    const QString path = item.toLocalFile();
    if (path.isEmpty() || !QFileInfo::exists(path))
        return fnfErr;
    return LIAEAddRefAtEnd(path, hideIt);
}

OSStatus LIAERemove(qsizetype itemIndex)
{
    LIAE_REQUIRE(itemIndex >= 0, "itemIndex >= 0");
    QList<Entry> entries;
    if (const OSStatus err = scanEntries(&entries); err != noErr)
        return err;
    if (itemIndex >= entries.size())
        return errAEIllegalIndex;
    return QFile::remove(entries.at(itemIndex).path) ? noErr : ioErr;
}

} // namespace nimbrel

#include "CalendarBackup.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QSet>

namespace nimbrel::background {

namespace {

// One content line, unfolded for reading, with the physical lines it came from for writing back.
struct ContentLine
{
    QString name;  // property name, upper case
    QString value; // after the first ':'
    QStringList physical;
};

QList<ContentLine> contentLines(const QByteArray& data)
{
    QString text = QString::fromUtf8(data);
    if (text.startsWith(QChar(0xFEFF)))
        text.remove(0, 1);
    QList<ContentLine> lines;
    QString unfolded;
    auto finish = [&] {
        if (lines.isEmpty())
            return;
        ContentLine& line = lines.last();
        // The name ends at the first ':' or ';' (parameters follow a ';').
        qsizetype end = 0;
        while (end < unfolded.size() && unfolded[end] != QLatin1Char(':') &&
               unfolded[end] != QLatin1Char(';'))
            ++end;
        line.name = unfolded.left(end).trimmed().toUpper();
        const qsizetype colon = unfolded.indexOf(QLatin1Char(':'));
        line.value = colon < 0 ? QString() : unfolded.mid(colon + 1);
    };
    for (QString physical : text.split(QLatin1Char('\n'))) {
        if (physical.endsWith(QLatin1Char('\r')))
            physical.chop(1);
        if (physical.isEmpty())
            continue;
        const bool continuation = physical[0] == QLatin1Char(' ') || physical[0] == QLatin1Char('\t');
        if (continuation && !lines.isEmpty()) {
            lines.last().physical << physical;
            unfolded += physical.mid(1);
            continue;
        }
        finish();
        lines.append(ContentLine{{}, {}, {physical}});
        unfolded = physical;
    }
    finish();
    return lines;
}

struct Components
{
    QList<QStringList> items;                     // VEVENT, VTODO, VJOURNAL in file order
    QList<std::pair<QString, QStringList>> zones; // VTIMEZONE with its TZID
};

void collect(const QString& fileName, const QByteArray& data, Components* out, QStringList* malformed)
{
    static const QSet<QString> wanted{QStringLiteral("VEVENT"), QStringLiteral("VTODO"),
                                      QStringLiteral("VJOURNAL"), QStringLiteral("VTIMEZONE")};
    QStringList stack;
    QStringList capture;
    QString captureName;
    QString tzid;
    qsizetype captureDepth = -1;
    for (const ContentLine& line : contentLines(data)) {
        const QString component = line.value.trimmed().toUpper();
        if (line.name == QLatin1String("BEGIN")) {
            if (captureDepth < 0 && stack == QStringList{QStringLiteral("VCALENDAR")} &&
                wanted.contains(component)) {
                captureDepth = stack.size();
                captureName = component;
                capture.clear();
                tzid.clear();
            }
            stack << component;
            if (captureDepth >= 0)
                capture << line.physical;
            continue;
        }
        if (line.name == QLatin1String("END")) {
            if (stack.isEmpty() || stack.last() != component) {
                malformed->append(QStringLiteral("%1: END:%2 does not close %3")
                                      .arg(fileName, component,
                                           stack.isEmpty() ? QStringLiteral("anything") : stack.last()));
                if (captureDepth >= 0)
                    malformed->append(QStringLiteral("%1: %2 left out").arg(fileName, captureName));
                return;
            }
            stack.removeLast();
            if (captureDepth >= 0) {
                capture << line.physical;
                if (stack.size() == captureDepth) {
                    if (captureName == QLatin1String("VTIMEZONE"))
                        out->zones.append({tzid, capture});
                    else
                        out->items.append(capture);
                    captureDepth = -1;
                }
            }
            continue;
        }
        if (captureDepth >= 0) {
            capture << line.physical;
            if (captureName == QLatin1String("VTIMEZONE") && stack.size() == captureDepth + 1 &&
                line.name == QLatin1String("TZID") && tzid.isEmpty())
                tzid = line.value.trimmed();
        }
    }
    if (captureDepth >= 0)
        malformed->append(QStringLiteral("%1: %2 never ends, left out").arg(fileName, captureName));
}

// TEXT value escaping: a title cannot add properties or break the line.
QString escapeText(const QString& text)
{
    QString out;
    for (const QChar c : text) {
        switch (c.unicode()) {
        case '\\':
            out += QLatin1String("\\\\");
            break;
        case ';':
            out += QLatin1String("\\;");
            break;
        case ',':
            out += QLatin1String("\\,");
            break;
        case '\n':
            out += QLatin1String("\\n");
            break;
        default:
            if (c.unicode() >= 0x20 && c.unicode() != 0x7f)
                out += c;
        }
    }
    return out;
}

// Folds a content line at 75 octets without splitting a UTF-8 sequence.
QByteArray fold(const QByteArray& line)
{
    QByteArray out;
    qsizetype start = 0;
    qsizetype limit = 75;
    while (line.size() - start > limit) {
        qsizetype cut = start + limit;
        while (cut > start && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80)
            --cut;
        out += line.mid(start, cut - start) + "\r\n ";
        start = cut;
        limit = 74;
    }
    out += line.mid(start) + "\r\n";
    return out;
}

} // namespace

MergedCalendar mergeCalendarFiles(const QString& title, const QStringList& icsFiles)
{
    MergedCalendar merged;
    Components all;
    for (const QString& path : icsFiles) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly)) {
            merged.unreadable << path;
            continue;
        }
        const QByteArray data = file.readAll();
        if (file.error() != QFileDevice::NoError) {
            merged.unreadable << path;
            continue;
        }
        collect(QFileInfo(path).fileName(), data, &all, &merged.malformed);
    }

    QByteArray& out = merged.text;
    out +=
        "BEGIN:VCALENDAR\r\nVERSION:2.0\r\nPRODID:-//Quorvia//Nimbrel Backup//EN\r\nCALSCALE:GREGORIAN\r\n";
    out += fold("X-WR-CALNAME:" + escapeText(title).toUtf8());
    QSet<QString> zoneSeen;
    for (const auto& [tzid, lines] : all.zones) {
        // A zone without a TZID cannot be referred to, but keep it once by its text.
        const QString key = tzid.isEmpty() ? lines.join(QLatin1Char('\n')) : tzid;
        if (zoneSeen.contains(key))
            continue;
        zoneSeen.insert(key);
        for (const QString& line : lines)
            out += line.toUtf8() + "\r\n";
    }
    for (const QStringList& lines : all.items) {
        for (const QString& line : lines)
            out += line.toUtf8() + "\r\n";
    }
    out += "END:VCALENDAR\r\n";
    return merged;
}

QString backupFileName(const QString& title, const QDateTime& when)
{
    static const QString forbidden = QStringLiteral("/\\:*?\"<>|");
    QString safe;
    for (const QChar c : title)
        safe += (c.unicode() < 0x20 || c.unicode() == 0x7f || forbidden.contains(c)) ? QLatin1Char('_') : c;
    safe = safe.trimmed();
    while (safe.startsWith(QLatin1Char('.')))
        safe.remove(0, 1);
    while (safe.toUtf8().size() > 200) {
        safe.chop(1);
        if (!safe.isEmpty() && safe.back().isHighSurrogate())
            safe.chop(1);
    }
    safe = safe.trimmed();
    if (safe.isEmpty())
        safe = QStringLiteral("Calendar");
    return safe + QLatin1Char(' ') + when.toString(QStringLiteral("yyyy-MM-dd HH.mm.ss")) +
           QStringLiteral(".ics");
}

bool backupCalendars(const QList<BackupSource>& calendars, const QString& folder, const QDateTime& when,
                     QStringList* written, QString* error)
{
    auto fail = [&](const QString& message) {
        for (const QString& path : std::as_const(*written))
            QFile::remove(path);
        written->clear();
        *error = message;
        return false;
    };
    written->clear();
    if (!QDir().mkpath(folder))
        return fail(QStringLiteral("cannot create the backup folder %1").arg(folder));
    const QDir dir(folder);
    for (const BackupSource& calendar : calendars) {
        const MergedCalendar merged = mergeCalendarFiles(calendar.title, calendar.files);
        if (!merged.unreadable.isEmpty())
            return fail(QStringLiteral("cannot read %1").arg(merged.unreadable.join(QStringLiteral(", "))));
        // Two calendars may share a title; neither backup may replace the other (or an older one).
        const QString name = backupFileName(calendar.title, when);
        QString path = dir.filePath(name);
        for (int n = 2; QFileInfo::exists(path); ++n) {
            QString numbered = name;
            numbered.insert(numbered.size() - 4, QStringLiteral(" (%1)").arg(n));
            path = dir.filePath(numbered);
        }
        QSaveFile file(path);
        if (!file.open(QIODevice::WriteOnly) || file.write(merged.text) != merged.text.size() ||
            !file.commit())
            return fail(QStringLiteral("cannot write %1: %2").arg(path, file.errorString()));
        written->append(path);
    }
    return true;
}

} // namespace nimbrel::background

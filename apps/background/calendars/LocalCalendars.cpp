#include "LocalCalendars.h"

#include "logging/Log.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSaveFile>
#include <QUuid>

namespace nimbrel::background {

namespace {

const QString kDisplayName = QStringLiteral("displayname");
const QString kColor = QStringLiteral("color");
constexpr qint64 kMaxMetaFileSize = 4096;

QString readSmallFile(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return {};
    return QString::fromUtf8(file.read(kMaxMetaFileSize)).trimmed();
}

bool writeSmallFile(const QString& path, const QString& text, QString* error)
{
    QSaveFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(text.toUtf8() + '\n') < 0 || !file.commit()) {
        *error = QStringLiteral("cannot write %1: %2").arg(path, file.errorString());
        return false;
    }
    return true;
}

QStringList calendarFolderNames(const QString& root)
{
    return QDir(root).entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

LocalCalendar readCalendar(const QDir& root, const QString& name)
{
    LocalCalendar calendar;
    calendar.uid = name;
    calendar.path = root.absoluteFilePath(name);
    const QDir folder(calendar.path);
    calendar.title = readSmallFile(folder.filePath(kDisplayName)).section(QLatin1Char('\n'), 0, 0).trimmed();
    if (calendar.title.isEmpty())
        calendar.title = name;
    static const QRegularExpression colorPattern(QStringLiteral("^#[0-9A-Fa-f]{6}([0-9A-Fa-f]{2})?$"));
    const QString color = readSmallFile(folder.filePath(kColor));
    if (colorPattern.match(color).hasMatch())
        calendar.color = color;
    const QFileInfoList files = folder.entryInfoList({QStringLiteral("*.ics")}, QDir::Files, QDir::Name);
    for (const QFileInfo& file : files) {
        calendar.items.insert(file.fileName(), {file.size(), file.lastModified().toMSecsSinceEpoch()});
    }
    return calendar;
}

} // namespace

QStringList LocalCalendar::itemPaths() const
{
    QStringList paths;
    const QDir folder(path);
    for (auto it = items.keyBegin(); it != items.keyEnd(); ++it)
        paths << folder.filePath(*it);
    return paths;
}

QList<LocalCalendar> scanCalendars(const QString& root)
{
    QList<LocalCalendar> calendars;
    const QDir dir(root);
    for (const QString& name : calendarFolderNames(root))
        calendars << readCalendar(dir, name);
    return calendars;
}

bool createDefaultCalendars(const QString& root, QString* error)
{
    if (!calendarFolderNames(root).isEmpty())
        return false;
    if (!QDir().mkpath(root)) {
        *error = QStringLiteral("cannot create %1").arg(root);
        return false;
    }
    const QDir dir(root);
    const std::pair<const char*, const char*> defaults[] = {{"Home", "#1E88E5"}, {"Work", "#E53935"}};
    for (const auto& [title, color] : defaults) {
        const QString uid = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
        const QString folder = dir.filePath(uid);
        if (!dir.mkdir(uid) ||
            !writeSmallFile(QDir(folder).filePath(kDisplayName), QLatin1String(title), error) ||
            !writeSmallFile(QDir(folder).filePath(kColor), QLatin1String(color), error)) {
            if (error->isEmpty())
                *error = QStringLiteral("cannot create %1").arg(folder);
            return false;
        }
    }
    return true;
}

QList<CalendarChange> diffCalendars(const QList<LocalCalendar>& before, const QList<LocalCalendar>& after)
{
    QMap<QString, const LocalCalendar*> old;
    for (const LocalCalendar& calendar : before)
        old.insert(calendar.uid, &calendar);
    QList<CalendarChange> changes;
    for (const LocalCalendar& now : after) {
        const LocalCalendar* was = old.take(now.uid);
        if (!was) {
            changes.append({now.uid, QStringLiteral("calendarAdded"), {}});
            continue;
        }
        if (was->title != now.title)
            changes.append({now.uid, QStringLiteral("calendarRenamed"), {}});
        if (was->color != now.color)
            changes.append({now.uid, QStringLiteral("calendarColorChanged"), {}});
        for (auto it = now.items.cbegin(); it != now.items.cend(); ++it) {
            const auto previous = was->items.constFind(it.key());
            if (previous == was->items.cend())
                changes.append({now.uid, QStringLiteral("itemAdded"), it.key()});
            else if (!(*previous == it.value()))
                changes.append({now.uid, QStringLiteral("itemChanged"), it.key()});
        }
        for (auto it = was->items.keyBegin(); it != was->items.keyEnd(); ++it) {
            if (!now.items.contains(*it))
                changes.append({now.uid, QStringLiteral("itemRemoved"), *it});
        }
    }
    for (const LocalCalendar* gone : old)
        changes.append({gone->uid, QStringLiteral("calendarRemoved"), {}});
    return changes;
}

CalendarWatcher::CalendarWatcher(QObject* parent) : QObject(parent)
{
    m_debounce.setSingleShot(true);
    m_debounce.setInterval(kDebounceMs);
    connect(&m_debounce, &QTimer::timeout, this, &CalendarWatcher::changed);
}

void CalendarWatcher::watch(const QString& root, const QList<LocalCalendar>& calendars)
{
    stop();
    m_watcher = new QFileSystemWatcher(this);
    QStringList paths{root};
    int items = 0;
    for (const LocalCalendar& calendar : calendars) {
        paths << calendar.path;
        const QDir folder(calendar.path);
        for (const QString& meta : {kDisplayName, kColor}) {
            if (QFileInfo::exists(folder.filePath(meta)))
                paths << folder.filePath(meta);
        }
        // Items edited in place change no folder; watch them too, within reason.
        for (const QString& item : calendar.itemPaths()) {
            if (items++ < kMaxWatchedItems)
                paths << item;
        }
    }
    if (items > kMaxWatchedItems)
        Log(10, "CalendarWatcher: %d items, only the first %d are watched for edits", items,
            kMaxWatchedItems);
    const QStringList failed = m_watcher->addPaths(paths);
    if (failed.contains(root))
        Log(13, "CalendarWatcher: cannot watch %@", root);
    auto poke = [this] { m_debounce.start(); };
    connect(m_watcher, &QFileSystemWatcher::directoryChanged, this, poke);
    connect(m_watcher, &QFileSystemWatcher::fileChanged, this, poke);
}

void CalendarWatcher::stop()
{
    m_debounce.stop();
    delete m_watcher;
    m_watcher = nullptr;
}

} // namespace nimbrel::background

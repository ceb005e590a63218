#include "NimbrelState.h"

#include "NimbrelStatePrivate.h"
#include "calendars/CalendarBackup.h"
#include "state/SyncHistory.h"

#include <QDateTime>
#include <QSqlQuery>
#include <algorithm>

namespace nimbrel::background {

namespace {

bool byOrderThenTitle(const QVariant& a, const QVariant& b)
{
    const QVariantMap x = a.toMap();
    const QVariantMap y = b.toMap();
    const qint64 ox = x.value(QStringLiteral("order")).toLongLong();
    const qint64 oy = y.value(QStringLiteral("order")).toLongLong();
    if (ox != oy)
        return ox < oy;
    return x.value(QStringLiteral("title"))
               .toString()
               .compare(y.value(QStringLiteral("title")).toString(), Qt::CaseInsensitive) < 0;
}

} // namespace

// ---- The parts ----------------------------------------------------------------------------------------

void NimbrelState::Private::change(const char* operation, const QString& notification,
                                   const std::function<QString()>& apply)
{
    QString problem;
    if (!db.isOpen()) {
        problem = QStringLiteral("the database is not open");
    } else if (!db.begin()) {
        problem = db.writeProblem();
    } else {
        problem = apply();
        if (problem.isEmpty() && !db.commit())
            problem = db.writeProblem();
        if (!problem.isEmpty())
            db.rollback();
    }
    if (!problem.isEmpty())
        Log(13, "%@: %@", operation, problem);
    notify(notification);
}

bool NimbrelState::Private::storeScan(const QList<LocalCalendar>& now, const QList<CalendarChange>* observed)
{
    const QHash<QString, CalendarSettingsRow> existing = settings.rows();
    QList<const LocalCalendar*> added;
    QSet<QString> present;
    for (const LocalCalendar& calendar : now) {
        present.insert(calendar.uid);
        if (!existing.contains(calendar.uid))
            added << &calendar;
    }
    std::stable_sort(added.begin(), added.end(), [](const LocalCalendar* a, const LocalCalendar* b) {
        return a->title.compare(b->title, Qt::CaseInsensitive) < 0;
    });
    QList<HistoryEntry> history;
    if (observed) {
        for (const CalendarChange& change : *observed)
            history.append({change.uid, change.kind, change.detail});
    }
    QStringList addedUids;
    for (const LocalCalendar* calendar : std::as_const(added)) {
        addedUids << calendar->uid;
        if (!observed)
            history.append({calendar->uid, QStringLiteral("calendarAdded"), {}});
    }
    QStringList removedUids;
    for (auto it = existing.keyBegin(); it != existing.keyEnd(); ++it) {
        if (present.contains(*it))
            continue;
        removedUids << *it;
        if (!observed)
            history.append({*it, QStringLiteral("calendarRemoved"), {}});
    }
    if (!db.begin())
        return false;
    if (settings.add(addedUids) && settings.remove(removedUids) &&
        recordHistory(db, history, QDateTime::currentMSecsSinceEpoch()) && db.commit())
        return true;
    db.rollback();
    return false;
}

void NimbrelState::Private::rescan()
{
    if (!db.isOpen())
        return;
    const QList<LocalCalendar> now = scanCalendars(calendarsRoot);
    const QList<CalendarChange> changes = diffCalendars(calendars, now);
    calendars = now;
    watcher->watch(calendarsRoot, calendars); // new folders and replaced files need new watches
    if (changes.isEmpty())
        return;
    if (!storeScan(calendars, &changes))
        Log(13, "calendarsChanged: cannot record the change: %@", db.lastError());
    notify(kCalendarsChanged);
}

QVariantMap NimbrelState::Private::sourceDictionary(const SourceRecord& source) const
{
    QVariantMap dict = source.settings;
    bool anySubscribed = false;
    dict.insert(QStringLiteral("calendars"), sources.subscriptionsOf(source.uid, &anySubscribed));
    dict.insert(QStringLiteral("source"), true);
    dict.insert(QStringLiteral("uid"), source.uid);
    dict.insert(QStringLiteral("offline"), true); // nothing is connected to it yet
    dict.insert(QStringLiteral("hasSubscriptions"), anySubscribed);
    return dict;
}

// ---- Lifecycle ----------------------------------------------------------------------------------------

NimbrelState::NimbrelState(const QString& databasePath, const QString& calendarsFolder,
                           const QString& backupFolder, Poster post, QObject* parent)
    : QObject(parent), d(std::make_unique<Private>())
{
    d->databasePath = databasePath;
    d->calendarsRoot = calendarsFolder;
    d->backupRoot = backupFolder;
    d->post = std::move(post);
    d->watcher = new CalendarWatcher(this);
    connect(d->watcher, &CalendarWatcher::changed, this, [this] { d->rescan(); });
}

NimbrelState::~NimbrelState()
{
    close();
}

bool NimbrelState::open()
{
    if (d->db.isOpen())
        return true;
    d->lastError.clear();
    if (!d->db.open(d->databasePath)) {
        d->lastError = d->db.lastError();
        return false;
    }
    QString error;
    if (createDefaultCalendars(d->calendarsRoot, &error))
        Log(10, "NimbrelState: made the calendars Home and Work in %@", d->calendarsRoot);
    else if (!error.isEmpty())
        Log(13, "NimbrelState: cannot make the default calendars: %@", error);
    d->calendars = scanCalendars(d->calendarsRoot);
    if (!d->storeScan(d->calendars, nullptr))
        Log(13, "NimbrelState: cannot record the calendars: %@", d->db.lastError());
    d->watcher->watch(d->calendarsRoot, d->calendars);
    return true;
}

void NimbrelState::close()
{
    d->watcher->stop();
    d->db.close();
    d->calendars.clear();
}

bool NimbrelState::isOpen() const
{
    return d->db.isOpen();
}

QString NimbrelState::lastError() const
{
    return d->lastError;
}

// ---- Answers ------------------------------------------------------------------------------------------

QVariantList NimbrelState::calendarsPublishableViaBonjour() const
{
    QVariantList list;
    if (!d->db.isOpen())
        return list;
    const QHash<QString, CalendarSettingsRow> rows = d->settings.rows();
    for (const LocalCalendar& calendar : std::as_const(d->calendars)) {
        const auto row = rows.constFind(calendar.uid);
        if (row == rows.cend())
            continue; // its row could not be written; it is not ours to describe
        QVariantMap dict{{QStringLiteral("uid"), calendar.uid},
                         {QStringLiteral("title"), calendar.title},
                         {QStringLiteral("order"), row->order},
                         {QStringLiteral("publishedToBonjour"), row->publishedToBonjour},
                         {QStringLiteral("publishedToGoogle"), row->publishedToGoogle},
                         {QStringLiteral("readPassword"), row->readPassword},
                         {QStringLiteral("writePassword"), row->writePassword},
                         {QStringLiteral("readOnly"), row->readOnly},
                         {QStringLiteral("subscribable"), true}};
        if (!calendar.color.isEmpty())
            dict.insert(QStringLiteral("color"), calendar.color);
        list << dict;
    }
    std::sort(list.begin(), list.end(), byOrderThenTitle);
    return list;
}

QVariantList NimbrelState::sourceListOfBonjourCalendars() const
{
    QVariantList list;
    if (!d->db.isOpen())
        return list;
    for (const SourceRecord& server : d->sources.sources(kServerSource))
        list << d->sourceDictionary(server);
    std::sort(list.begin(), list.end(), byTitle);
    return list;
}

QVariantList NimbrelState::calendarsPublishableToGoogle() const
{
    return calendarsPublishableViaBonjour();
}

QVariantList NimbrelState::sourceListOfGoogleCalendars() const
{
    if (!d->db.isOpen())
        return {};
    const auto account = d->sources.googleAccount();
    if (!account)
        return {};
    QVariantMap dict = d->sourceDictionary(*account);
    dict.insert(QStringLiteral("hasPublishing"), d->settings.anyPublishedToGoogle());
    return {dict};
}

QVariantMap NimbrelState::bonjourPublisherInfo() const
{
    return d->sources.publisherInfo(); // a closed database reads as the defaults
}

bool NimbrelState::googleSyncInProgress() const
{
    return false; // no sync runs yet
}

// ---- Reset --------------------------------------------------------------------------------------------

bool NimbrelState::resetDatabase()
{
    const bool ok = [this] {
        if (!d->db.isOpen()) {
            d->lastError = QStringLiteral("the database is not open");
            return false;
        }
        QStringList written;
        QString error;
        const QList<LocalCalendar> now = scanCalendars(d->calendarsRoot);
        if (!backupCalendars(now, d->backupRoot, QDateTime::currentDateTime(), &written, &error)) {
            d->lastError = error;
            return false;
        }
        if (!d->db.wipe()) {
            d->lastError = QStringLiteral("cannot empty the database: %1").arg(d->db.lastError());
            return false;
        }
        // The calendar folders stay; they come back with fresh settings.
        d->calendars = now;
        const QList<CalendarChange> none;
        if (!d->storeScan(d->calendars, &none))
            Log(13, "resetDatabase: cannot record the calendars: %@", d->db.lastError());
        d->watcher->watch(d->calendarsRoot, d->calendars);
        Log(10, "resetDatabase: %d calendars backed up to %@; the database is fresh", int(written.size()),
            d->backupRoot);
        return true;
    }();
    // Only a reset that happened is confirmed; after a failure (logged by the caller with lastError())
    // the panel's own time-out reports it.
    if (ok)
        d->notify(kReset);
    return ok;
}

void NimbrelState::pauseForSyncHistoryReset()
{
    close();
}

bool NimbrelState::resumeAfterSyncHistoryReset()
{
    const bool ok = open();
    d->notify(kCalendarsChanged);
    return ok;
}

QStringList NimbrelState::diagnostics() const
{
    QStringList lines;
    if (!d->db.isOpen()) {
        lines << QStringLiteral("Database: %1 (not open)").arg(d->databasePath);
        return lines;
    }
    const auto count = [this](const char* sql) { return d->db.scalar(QLatin1String(sql)).toLongLong(); };
    lines << QStringLiteral("Database: %1 (schema version %2)")
                 .arg(d->databasePath)
                 .arg(count("PRAGMA user_version"));
    lines << QStringLiteral("Calendars folder: %1").arg(d->calendarsRoot);
    lines << QStringLiteral("Local calendars: %1 (published via Bonjour: %2, to Google: %3)")
                 .arg(count("SELECT COUNT(*) FROM calendars"))
                 .arg(count("SELECT COUNT(*) FROM calendars WHERE published_bonjour != 0"))
                 .arg(count("SELECT COUNT(*) FROM calendars WHERE published_google != 0"));
    lines << QStringLiteral("Subscriptions: %1 (subscribed: %2)")
                 .arg(count("SELECT COUNT(*) FROM subscriptions"))
                 .arg(count("SELECT COUNT(*) FROM subscriptions WHERE subscribed != 0"));
    lines << QStringLiteral("Remote servers: %1").arg(count("SELECT COUNT(*) FROM sources WHERE kind = 'server'"));
    lines << QStringLiteral("Google account: %1")
                 .arg(count("SELECT COUNT(*) FROM sources WHERE kind = 'google'") > 0 ? QStringLiteral("yes")
                                                                                      : QStringLiteral("no"));
    lines << QStringLiteral("Sync history rows: %1").arg(count("SELECT COUNT(*) FROM sync_history"));
    const QVariantMap info = bonjourPublisherInfo();
    lines << QStringLiteral("Bonjour name: %1").arg(info.value(QStringLiteral("bonjourName")).toString());
    lines << QStringLiteral("Port: %1")
                 .arg(info.contains(QStringLiteral("portNumber"))
                          ? QString::number(info.value(QStringLiteral("portNumber")).toLongLong())
                          : QStringLiteral("automatic"));
    return lines;
}

} // namespace nimbrel::background

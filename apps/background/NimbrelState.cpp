#include "NimbrelState.h"

#include "NimbrelStatePrivate.h"
#include "calendars/CalendarBackup.h"
#include "platform/RunLoop.h"
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

bool NimbrelState::Private::change(const char* operation, const QString& notification,
                                   const std::function<QString()>& apply)
{
    QString problem;
    settleCalendars(); // a change may name a calendar of the first look at the folders
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
    if (published)
        published->settingsChanged(); // the next request reads flags and passwords afresh
    notify(notification);
    return problem.isEmpty();
}

bool NimbrelState::Private::addSettingsRows(const QStringList& uids)
{
    QList<std::pair<QString, QString>> byTitle; // title, uid
    for (const QString& uid : uids) {
        const std::optional<StoreCalendar> calendar = store->calendar(uid);
        byTitle.append({calendar ? calendar->displayName : uid, uid});
    }
    std::stable_sort(byTitle.begin(), byTitle.end(), [](const auto& a, const auto& b) {
        return a.first.compare(b.first, Qt::CaseInsensitive) < 0;
    });
    QStringList ordered;
    for (const auto& [title, uid] : std::as_const(byTitle))
        ordered << uid;
    return settings.add(ordered);
}

void NimbrelState::Private::calendarsChanged(const QList<CalendarChange>& changes)
{
    // New calendars first, by title, so that their order follows their titles.
    QList<std::pair<QString, CalendarChange>> added; // title, change
    for (const CalendarChange& change : changes) {
        if (change.kind == QLatin1String("calendarAdded"))
            added.append({store->calendar(change.uid).value_or(StoreCalendar{}).displayName, change});
        else
            toRecord << change;
    }
    std::stable_sort(added.begin(), added.end(), [](const auto& a, const auto& b) {
        return a.first.compare(b.first, Qt::CaseInsensitive) < 0;
    });
    QList<CalendarChange> ordered;
    for (const auto& entry : std::as_const(added))
        ordered << entry.second;
    toRecord = ordered + toRecord;
    recordSome();
}

void NimbrelState::Private::recordSome(qsizetype chunkSize)
{
    RunLoop::current().cancelPreviousPerformRequests(this, kRecordSelector);
    if (!db.isOpen()) {
        toRecord.clear();
        return;
    }
    const QList<CalendarChange> chunk = toRecord.mid(0, chunkSize);
    toRecord.remove(0, chunk.size());
    QList<HistoryEntry> history;
    QStringList added;
    QStringList removed;
    for (const CalendarChange& change : chunk) {
        history.append({change.uid, change.kind, change.detail});
        if (change.kind == QLatin1String("calendarAdded"))
            added << change.uid;
        else if (change.kind == QLatin1String("calendarRemoved"))
            removed << change.uid;
    }
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const bool ok = db.begin() && settings.add(added) && settings.markVanished(removed, now) &&
                    settings.purgeVanished(now) && recordHistory(db, history, now) && db.commit();
    if (!ok) {
        Log(13, "calendarsChanged: cannot record the change: %@", db.lastError());
        db.rollback();
    }
    if (!toRecord.isEmpty())
        RunLoop::current().performAfterDelay(this, kRecordSelector, 0, [this] { recordSome(); });
    else
        notify(kCalendarsChanged);
}

void NimbrelState::Private::settleCalendars()
{
    store->finishInitialScan();
    if (!toRecord.isEmpty())
        recordSome(toRecord.size()); // someone waits for it: one transaction
}

// What the folders hold right now (the index may lag a hand edit by a batch).
QList<BackupSource> NimbrelState::Private::backupSources() const
{
    QList<BackupSource> sources;
    for (const StoreCalendar& calendar : store->calendars()) {
        const QString folder = store->calendarPath(calendar.uid);
        const FolderListing listing = readFolder(folder);
        BackupSource source{listing.title.isEmpty() ? calendar.displayName : listing.title, {}};
        for (auto it = listing.items.keyBegin(); it != listing.items.keyEnd(); ++it)
            source.files << folder + QLatin1Char('/') + *it;
        source.files.sort();
        sources << source;
    }
    return sources;
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
    d->store = new CalendarStore(d->db, calendarsFolder, this);
    connect(d->store, &CalendarStore::changed, this,
            [this](const QList<CalendarChange>& changes) { d->calendarsChanged(changes); });
    d->published = new PublishedCalendars(*d->store, d->settings, this);
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
    if (!d->store->open()) {
        d->lastError = QStringLiteral("the calendar index cannot be read: %1").arg(d->db.lastError());
        d->db.close();
        return false;
    }
    // Calendars indexed before their settings row was written (an interrupted batch, a reset).
    QStringList missing;
    const QHash<QString, CalendarSettingsRow> rows = d->settings.rows();
    for (const StoreCalendar& calendar : d->store->calendars()) {
        if (!rows.contains(calendar.uid))
            missing << calendar.uid;
    }
    if (!(d->db.begin() && d->addSettingsRows(missing) &&
          d->settings.purgeVanished(QDateTime::currentMSecsSinceEpoch()) && d->db.commit())) {
        Log(13, "NimbrelState: cannot record the calendars: %@", d->db.lastError());
        d->db.rollback();
    }
    return true;
}

void NimbrelState::close()
{
    d->store->close();
    RunLoop::current().cancelAllPerformRequests(d.get());
    d->toRecord.clear();
    d->db.close();
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
    d->settleCalendars();
    const QHash<QString, CalendarSettingsRow> rows = d->settings.rows();
    for (const StoreCalendar& calendar : d->store->calendars()) {
        const auto row = rows.constFind(calendar.uid);
        if (row == rows.cend())
            continue; // its row is not written yet; the batch that writes it posts a notice
        QVariantMap dict{{QStringLiteral("uid"), calendar.uid},
                         {QStringLiteral("title"), calendar.displayName},
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
    QVariantMap info = storedPublisherInfo();
    if (!d->publishedName.isEmpty())
        info.insert(QStringLiteral("bonjourName"), d->publishedName); // Avahi's, after a collision
    return info;
}

QVariantMap NimbrelState::storedPublisherInfo() const
{
    return d->sources.publisherInfo(); // a closed database reads as the defaults
}

publish::PublishedStore* NimbrelState::publishedStore() const
{
    return d->published;
}

void NimbrelState::setPublisherInfoChanged(std::function<void()> changed)
{
    d->publisherInfoChanged = std::move(changed);
}

void NimbrelState::setPublishedName(const QString& name)
{
    d->publishedName = name;
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
        if (!backupCalendars(d->backupSources(), d->backupRoot, QDateTime::currentDateTime(), &written,
                             &error)) {
            d->lastError = error;
            return false;
        }
        if (!d->db.wipe()) {
            d->lastError = QStringLiteral("cannot empty the database: %1").arg(d->db.lastError());
            return false;
        }
        // The calendar folders stay; they come back with fresh settings.
        QStringList uids;
        for (const StoreCalendar& calendar : d->store->calendars())
            uids << calendar.uid;
        if (!(d->db.begin() && d->addSettingsRows(uids) && d->db.commit())) {
            Log(13, "resetDatabase: cannot record the calendars: %@", d->db.lastError());
            d->db.rollback();
        }
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

CalendarStore& NimbrelState::calendarStore()
{
    return *d->store;
}

const CalendarSettings& NimbrelState::calendarSettings() const
{
    return d->settings;
}

QStringList NimbrelState::diagnostics() const
{
    QStringList lines;
    if (!d->db.isOpen()) {
        lines << QStringLiteral("Database: %1 (not open)").arg(d->databasePath);
        return lines;
    }
    d->settleCalendars();
    const auto count = [this](const char* sql) { return d->db.scalar(QLatin1String(sql)).toLongLong(); };
    lines << QStringLiteral("Database: %1 (schema version %2)")
                 .arg(d->databasePath)
                 .arg(count("PRAGMA user_version"));
    lines << QStringLiteral("Calendars folder: %1").arg(d->calendarsRoot);
    lines << QStringLiteral("Local calendars: %1 (published via Bonjour: %2, to Google: %3)")
                 .arg(count("SELECT COUNT(*) FROM calendars WHERE vanished_at IS NULL"))
                 .arg(count(
                     "SELECT COUNT(*) FROM calendars WHERE vanished_at IS NULL AND published_bonjour != 0"))
                 .arg(count(
                     "SELECT COUNT(*) FROM calendars WHERE vanished_at IS NULL AND published_google != 0"));
    lines << QStringLiteral("Subscriptions: %1 (subscribed: %2)")
                 .arg(count("SELECT COUNT(*) FROM subscriptions"))
                 .arg(count("SELECT COUNT(*) FROM subscriptions WHERE subscribed != 0"));
    lines << QStringLiteral("Remote servers: %1")
                 .arg(count("SELECT COUNT(*) FROM sources WHERE kind = 'server'"));
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

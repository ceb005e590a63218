#include "NimbrelState.h"

#include "CalendarBackup.h"
#include "LocalCalendars.h"
#include "StateDatabase.h"
#include "logging/Log.h"
#include "platform/PlistCodec.h"
#include "platform/PlistValue.h"

#include <QDateTime>
#include <QDir>
#include <QSqlQuery>
#include <QSysInfo>
#include <QUrl>
#include <QUuid>
#include <algorithm>
#include <optional>

namespace nimbrel::background {

namespace {

const QString kCalendarsChanged = QStringLiteral("Nimbrel Calendars Changed");
const QString kPublishableChange = QStringLiteral("Nimbrel Bonjour Publishable Change");
const QString kBonjourChange = QStringLiteral("Nimbrel Bonjour Change");
const QString kGoogleChange = QStringLiteral("Nimbrel Google Change");
const QString kNamePublished = QStringLiteral("Nimbrel Bonjour Name Published");
const QString kReset = QStringLiteral("Nimbrel Reset");

const QString kServer = QStringLiteral("server");
const QString kGoogle = QStringLiteral("google");

constexpr int kMaxBonjourNameBytes = 63;

QString key(const char* name)
{
    return QLatin1String(name);
}

// Keys that we compute when answering (or that name the record's place); they are never stored.
const QStringList& computedKeys()
{
    static const QStringList keys{QStringLiteral("uid"),
                                  QStringLiteral("source"),
                                  QStringLiteral("calendars"),
                                  QStringLiteral("offline"),
                                  QStringLiteral("syncTime"),
                                  QStringLiteral("syncError"),
                                  QStringLiteral("running"),
                                  QStringLiteral("version"),
                                  QStringLiteral("hasSubscriptions"),
                                  QStringLiteral("hasPublishing"),
                                  QStringLiteral("newGoogleService"),
                                  QStringLiteral("subscribedTo"),
                                  QStringLiteral("bonjour")};
    return keys;
}

QVariantMap withoutComputedKeys(QVariantMap map)
{
    for (const QString& k : computedKeys())
        map.remove(k);
    return map;
}

bool isIntegerValue(const QVariant& v)
{
    return plist::typeOf(v) == plist::Type::Integer;
}

// Booleans travel as booleans, but a number reads as true or false as well.
bool isBooleanValue(const QVariant& v)
{
    return v.typeId() == QMetaType::Bool || isIntegerValue(v);
}

// Reads the fields of an incoming dictionary, remembering the first thing wrong with it. Absent keys
// read as false, zero or empty.
class Input
{
public:
    explicit Input(const QVariantMap& map) : m_map(map) {}

    bool ok() const { return m_problem.isEmpty(); }
    QString problem() const { return m_problem; }
    void fail(const QString& problem)
    {
        if (m_problem.isEmpty())
            m_problem = problem;
    }
    bool has(const char* name) const { return m_map.contains(key(name)); }

    bool boolean(const char* name)
    {
        const QVariant v = m_map.value(key(name));
        if (!v.isValid())
            return false;
        if (!isBooleanValue(v)) {
            wrongType(name, "a boolean");
            return false;
        }
        return v.toBool();
    }
    QString string(const char* name)
    {
        const QVariant v = m_map.value(key(name));
        if (!v.isValid())
            return {};
        if (v.typeId() != QMetaType::QString) {
            wrongType(name, "a string");
            return {};
        }
        return v.toString();
    }
    qint64 integer(const char* name)
    {
        const QVariant v = m_map.value(key(name));
        if (!v.isValid())
            return 0;
        if (!isIntegerValue(v)) {
            wrongType(name, "an integer");
            return 0;
        }
        return v.toLongLong();
    }
    void dictionary(const char* name)
    {
        const QVariant v = m_map.value(key(name));
        if (v.isValid() && v.typeId() != QMetaType::QVariantMap)
            wrongType(name, "a dictionary");
    }
    // "uid": a non-empty string.
    QString uid()
    {
        if (!has("uid")) {
            fail(QStringLiteral("\"uid\" is missing"));
            return {};
        }
        const QString uid = string("uid");
        if (ok() && uid.isEmpty())
            fail(QStringLiteral("\"uid\" is empty"));
        return uid;
    }

private:
    void wrongType(const char* name, const char* expected)
    {
        fail(QStringLiteral("\"%1\" is not %2").arg(key(name), QLatin1String(expected)));
    }

    const QVariantMap& m_map;
    QString m_problem;
};

QByteArray encodeRecord(const QVariantMap& record, QString* error)
{
    return plist::write(record, error).value_or(QByteArray());
}

QVariantMap decodeRecord(const QByteArray& blob)
{
    return plist::read(blob).value_or(QVariant()).toMap();
}

QString newUid()
{
    return QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper();
}

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

bool byTitle(const QVariant& a, const QVariant& b)
{
    return a.toMap()
               .value(QStringLiteral("title"))
               .toString()
               .compare(b.toMap().value(QStringLiteral("title")).toString(), Qt::CaseInsensitive) < 0;
}

QString dataHome()
{
    const QString configured = qEnvironmentVariable("XDG_DATA_HOME");
    if (!configured.isEmpty() && QDir::isAbsolutePath(configured))
        return configured;
    return QDir::homePath() + QStringLiteral("/.local/share");
}

} // namespace

QString supportFolder()
{
    return dataHome() + QStringLiteral("/Nimbrel");
}

QString databasePath()
{
    return supportFolder() + QStringLiteral("/Nimbrel.nsql");
}

QString backupFolder()
{
    return supportFolder() + QStringLiteral("/Backup");
}

QString calendarsFolder()
{
    return supportFolder() + QStringLiteral("/Calendars");
}

struct NimbrelState::Private
{
    QString databasePath;
    QString calendarsRoot;
    QString backupRoot;
    Poster post;
    StateDatabase db;
    CalendarWatcher* watcher = nullptr;
    QList<LocalCalendar> calendars; // the folders as last scanned
    QString lastError;

    void notify(const QString& name)
    {
        if (post)
            post(name);
    }

    QString writeProblem() const
    {
        return QStringLiteral("cannot write the database: %1").arg(db.lastError());
    }

    // One change: `apply` checks the input and writes inside a transaction, returning what was wrong
    // (empty when all went well). Bad input and failed writes are logged; the notification is posted
    // in every case, after the commit, so that the panel stops waiting and re-reads the state.
    void change(const char* operation, const QString& notification, const std::function<QString()>& apply)
    {
        QString problem;
        if (!db.isOpen()) {
            problem = QStringLiteral("the database is not open");
        } else if (!db.begin()) {
            problem = writeProblem();
        } else {
            problem = apply();
            if (problem.isEmpty() && !db.commit())
                problem = writeProblem();
            if (!problem.isEmpty())
                db.rollback();
        }
        if (!problem.isEmpty())
            Log(13, "%@: %@", operation, problem);
        notify(notification);
    }

    // Brings the calendar rows in line with the folders and records the history. `observed` are the
    // changes a watcher saw; without them (at open) the added and removed rows are the history.
    bool storeScan(const QList<LocalCalendar>& now, const QList<CalendarChange>* observed)
    {
        QStringList existing;
        {
            QSqlQuery q(db.handle());
            if (!q.exec(QStringLiteral("SELECT uid FROM calendars")))
                return false;
            while (q.next())
                existing << q.value(0).toString();
        }
        QList<const LocalCalendar*> added;
        QStringList present;
        for (const LocalCalendar& calendar : now) {
            present << calendar.uid;
            if (!existing.contains(calendar.uid))
                added << &calendar;
        }
        std::stable_sort(added.begin(), added.end(), [](const LocalCalendar* a, const LocalCalendar* b) {
            return a->title.compare(b->title, Qt::CaseInsensitive) < 0;
        });
        QList<CalendarChange> history = observed ? *observed : QList<CalendarChange>();
        if (!db.begin())
            return false;
        bool ok = true;
        for (const LocalCalendar* calendar : added) {
            ok =
                ok && db.exec(QStringLiteral("INSERT INTO calendars (uid, sort_order) VALUES "
                                             "(?, COALESCE((SELECT MAX(sort_order) FROM calendars), 0) + 1)"),
                              {calendar->uid});
            if (!observed)
                history.append({calendar->uid, QStringLiteral("calendarAdded"), {}});
        }
        for (const QString& uid : std::as_const(existing)) {
            if (present.contains(uid))
                continue;
            ok = ok && db.exec(QStringLiteral("DELETE FROM calendars WHERE uid = ?"), {uid});
            if (!observed)
                history.append({uid, QStringLiteral("calendarRemoved"), {}});
        }
        const qint64 now_ms = QDateTime::currentMSecsSinceEpoch();
        for (const CalendarChange& change : std::as_const(history)) {
            ok = ok && db.exec(QStringLiteral("INSERT INTO sync_history (calendar_uid, time, kind, detail) "
                                              "VALUES (?, ?, ?, ?)"),
                               {change.uid, now_ms, change.kind, change.detail});
        }
        if (ok && db.commit())
            return true;
        db.rollback();
        return false;
    }

    void rescan()
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

    bool calendarExists(const QString& uid)
    {
        return db.scalar(QStringLiteral("SELECT 1 FROM calendars WHERE uid = ?"), {uid}).isValid();
    }

    struct Source
    {
        QString uid;
        QVariantMap record;
    };

    QList<Source> sources(const QString& kind) const
    {
        QList<Source> list;
        QSqlQuery q(db.handle());
        q.prepare(QStringLiteral("SELECT uid, settings FROM sources WHERE kind = ?"));
        q.addBindValue(kind);
        if (!q.exec())
            return list;
        while (q.next())
            list.append({q.value(0).toString(), decodeRecord(q.value(1).toByteArray())});
        return list;
    }

    std::optional<Source> googleAccount() const
    {
        const QList<Source> accounts = sources(kGoogle);
        if (accounts.isEmpty())
            return std::nullopt;
        return accounts.first();
    }

    // The subscriptions stored for a source, as calendar dictionaries.
    QVariantList subscriptionsOf(const QString& sourceUid, bool* anySubscribed) const
    {
        QVariantList list;
        *anySubscribed = false;
        QSqlQuery q(db.handle());
        q.prepare(QStringLiteral("SELECT uid, subscribed, record FROM subscriptions WHERE source_uid = ?"));
        q.addBindValue(sourceUid);
        if (!q.exec())
            return list;
        while (q.next()) {
            QVariantMap calendar = decodeRecord(q.value(2).toByteArray());
            calendar.insert(QStringLiteral("uid"), q.value(0).toString());
            const bool subscribed = q.value(1).toBool();
            *anySubscribed = *anySubscribed || subscribed;
            calendar.insert(QStringLiteral("subscribedTo"), subscribed);
            calendar.insert(QStringLiteral("bonjour"), false);
            if (!calendar.contains(QStringLiteral("title")))
                calendar.insert(QStringLiteral("title"), q.value(0).toString());
            if (!calendar.contains(QStringLiteral("subscribable")))
                calendar.insert(QStringLiteral("subscribable"), true);
            list << calendar;
        }
        std::sort(list.begin(), list.end(), byTitle);
        return list;
    }

    QVariantMap sourceDictionary(const Source& source) const
    {
        QVariantMap dict = source.record;
        bool anySubscribed = false;
        dict.insert(QStringLiteral("calendars"), subscriptionsOf(source.uid, &anySubscribed));
        dict.insert(QStringLiteral("source"), true);
        dict.insert(QStringLiteral("uid"), source.uid);
        dict.insert(QStringLiteral("offline"), true); // nothing is connected to it yet
        dict.insert(QStringLiteral("hasSubscriptions"), anySubscribed);
        return dict;
    }

    bool anyPublishedToGoogle() const
    {
        QSqlQuery q(db.handle());
        return q.exec(QStringLiteral("SELECT 1 FROM calendars WHERE published_google != 0 LIMIT 1")) &&
               q.next();
    }

    QString storeSource(const QString& uid, const QString& kind, const QVariantMap& record)
    {
        QString error;
        const QByteArray blob = encodeRecord(record, &error);
        if (blob.isEmpty())
            return QStringLiteral("the settings cannot be stored: %1").arg(error);
        if (!db.exec(QStringLiteral("INSERT INTO sources (uid, kind, settings) VALUES (?, ?, ?) "
                                    "ON CONFLICT (uid) DO UPDATE SET settings = excluded.settings"),
                     {uid, kind, blob}))
            return writeProblem();
        return {};
    }

    QString removeSource(const QString& uid)
    {
        if (!db.exec(QStringLiteral("DELETE FROM subscriptions WHERE source_uid = ?"), {uid}) ||
            !db.exec(QStringLiteral("DELETE FROM sources WHERE uid = ?"), {uid}))
            return writeProblem();
        return {};
    }

    qint64 count(const QString& sql) const
    {
        QSqlQuery q(db.handle());
        return q.exec(sql) && q.next() ? q.value(0).toLongLong() : 0;
    }
};

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

// ---- Answers ----------------------------------------------------------------------------------------

QVariantList NimbrelState::calendarsPublishableViaBonjour() const
{
    QVariantList list;
    if (!d->db.isOpen())
        return list;
    QHash<QString, QVariantMap> rows;
    {
        QSqlQuery q(d->db.handle());
        q.exec(QStringLiteral("SELECT uid, sort_order, published_bonjour, published_google, read_password, "
                              "write_password, read_only FROM calendars"));
        while (q.next()) {
            rows.insert(q.value(0).toString(), {{QStringLiteral("order"), q.value(1).toLongLong()},
                                                {QStringLiteral("publishedToBonjour"), q.value(2).toBool()},
                                                {QStringLiteral("publishedToGoogle"), q.value(3).toBool()},
                                                {QStringLiteral("readPassword"), q.value(4).toString()},
                                                {QStringLiteral("writePassword"), q.value(5).toString()},
                                                {QStringLiteral("readOnly"), q.value(6).toBool()}});
        }
    }
    for (const LocalCalendar& calendar : std::as_const(d->calendars)) {
        const auto row = rows.constFind(calendar.uid);
        if (row == rows.cend())
            continue; // its row could not be written; it is not ours to describe
        QVariantMap dict = *row;
        dict.insert(QStringLiteral("uid"), calendar.uid);
        dict.insert(QStringLiteral("title"), calendar.title);
        dict.insert(QStringLiteral("subscribable"), true);
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
    for (const Private::Source& server : d->sources(kServer))
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
    const auto account = d->googleAccount();
    if (!account)
        return {};
    QVariantMap dict = d->sourceDictionary(*account);
    dict.insert(QStringLiteral("hasPublishing"), d->anyPublishedToGoogle());
    return {dict};
}

QVariantMap NimbrelState::bonjourPublisherInfo() const
{
    QString name;
    qint64 port = 0;
    if (d->db.isOpen()) {
        name =
            d->db.scalar(QStringLiteral("SELECT value FROM settings WHERE key = 'bonjourName'")).toString();
        port =
            d->db.scalar(QStringLiteral("SELECT value FROM settings WHERE key = 'portNumber'")).toLongLong();
    }
    if (name.isEmpty())
        name = QSysInfo::machineHostName();
    if (name.isEmpty())
        name = QStringLiteral("localhost");
    QVariantMap info{{QStringLiteral("bonjourName"), name}};
    if (port > 0)
        info.insert(QStringLiteral("portNumber"), port);
    return info;
}

bool NimbrelState::googleSyncInProgress() const
{
    return false; // no sync runs yet
}

// ---- Changes ----------------------------------------------------------------------------------------

void NimbrelState::publishCalendarViaBonjour(const QVariantMap& calendar)
{
    d->change("publishCalendarViaBonjour", kPublishableChange, [&]() -> QString {
        Input in(calendar);
        const QString uid = in.uid();
        const bool published = in.boolean("publishedToBonjour");
        if (!in.ok())
            return in.problem();
        if (!d->calendarExists(uid))
            return QStringLiteral("no local calendar has the uid %1").arg(uid);
        if (!d->db.exec(QStringLiteral("UPDATE calendars SET published_bonjour = ? WHERE uid = ?"),
                        {published, uid}))
            return d->writeProblem();
        return {};
    });
}

void NimbrelState::publishCalendarToGoogle(const QVariantMap& calendar)
{
    d->change("publishCalendarToGoogle", kGoogleChange, [&]() -> QString {
        Input in(calendar);
        const QString uid = in.uid();
        const bool published = in.boolean("publishedToGoogle");
        if (!in.ok())
            return in.problem();
        if (!d->calendarExists(uid))
            return QStringLiteral("no local calendar has the uid %1").arg(uid);
        if (published && !d->googleAccount())
            return QStringLiteral("there is no Google account to publish to");
        if (!d->db.exec(QStringLiteral("UPDATE calendars SET published_google = ? WHERE uid = ?"),
                        {published, uid}))
            return d->writeProblem();
        return {};
    });
}

void NimbrelState::publishOptions(const QVariantMap& calendar)
{
    d->change("publishOptions", kPublishableChange, [&]() -> QString {
        Input in(calendar);
        const QString uid = in.uid();
        const QString readPassword = in.string("readPassword");
        const QString writePassword = in.string("writePassword");
        const bool readOnly = in.boolean("readOnly");
        if (!in.ok())
            return in.problem();
        if (!d->calendarExists(uid))
            return QStringLiteral("no local calendar has the uid %1").arg(uid);
        if (!d->db.exec(
                QStringLiteral("UPDATE calendars SET read_password = ?, write_password = ?, read_only = ? "
                               "WHERE uid = ?"),
                {readPassword, writePassword, readOnly, uid}))
            return d->writeProblem();
        return {};
    });
}

void NimbrelState::subscribeTo(const QVariantMap& calendar)
{
    d->change("subscribeTo", kBonjourChange, [&]() -> QString {
        Input in(calendar);
        const QString uid = in.uid();
        const bool subscribed = in.boolean("subscribedTo");
        if (!in.ok())
            return in.problem();
        if (!d->db.scalar(QStringLiteral("SELECT 1 FROM subscriptions WHERE uid = ?"), {uid}).isValid())
            return QStringLiteral("no subscription has the uid %1").arg(uid);
        if (!d->db.exec(QStringLiteral("UPDATE subscriptions SET subscribed = ? WHERE uid = ?"),
                        {subscribed, uid}))
            return d->writeProblem();
        return {};
    });
}

void NimbrelState::subscribeOptions(const QVariantMap& calendar)
{
    d->change("subscribeOptions", kBonjourChange, [&]() -> QString {
        Input in(calendar);
        const QString uid = in.uid();
        in.string("subscribePassword");
        in.string("title");
        for (const char* flag : {"readOnly", "readProtected", "readableByAnyone", "writableByAnyone",
                                 "filterReminders", "filterToDos", "filterAttachments"})
            in.boolean(flag);
        if (!in.ok())
            return in.problem();
        const QVariant stored =
            d->db.scalar(QStringLiteral("SELECT record FROM subscriptions WHERE uid = ?"), {uid});
        if (!stored.isValid())
            return QStringLiteral("no subscription has the uid %1").arg(uid);
        // The record is replaced as a whole: a password left out is a password forgotten.
        QVariantMap record = withoutComputedKeys(calendar);
        const QVariantMap previous = decodeRecord(stored.toByteArray());
        if (!record.contains(QStringLiteral("title")) && previous.contains(QStringLiteral("title")))
            record.insert(QStringLiteral("title"), previous.value(QStringLiteral("title")));
        QString error;
        const QByteArray blob = encodeRecord(record, &error);
        if (blob.isEmpty())
            return QStringLiteral("the options cannot be stored: %1").arg(error);
        if (!d->db.exec(QStringLiteral("UPDATE subscriptions SET record = ? WHERE uid = ?"), {blob, uid}))
            return d->writeProblem();
        return {};
    });
}

void NimbrelState::bonjourIPServiceOptions(const QVariantMap& server)
{
    d->change("bonjourIPServiceOptions", kBonjourChange, [&]() -> QString {
        Input in(server);
        const QString uid = in.has("uid") ? in.string("uid") : QString();
        in.string("title");
        in.string("remoteURL");
        in.integer("syncInterval");
        in.boolean("remoteSSL");
        if (!in.ok())
            return in.problem();
        QString sourceUid = newUid();
        QVariantMap record;
        if (!uid.isEmpty()) {
            const QString kind =
                d->db.scalar(QStringLiteral("SELECT kind FROM sources WHERE uid = ?"), {uid}).toString();
            if (kind == kGoogle)
                return QStringLiteral("the uid %1 is the Google account's, not a server's").arg(uid);
            if (kind == kServer) {
                sourceUid = uid;
                record = decodeRecord(
                    d->db.scalar(QStringLiteral("SELECT settings FROM sources WHERE uid = ?"), {uid})
                        .toByteArray());
            }
        }
        const QVariantMap incoming = withoutComputedKeys(server);
        for (auto it = incoming.cbegin(); it != incoming.cend(); ++it)
            record.insert(it.key(), it.value());
        const QString url = record.value(QStringLiteral("remoteURL")).toString().trimmed();
        if (url.isEmpty())
            return QStringLiteral("\"remoteURL\" is missing or empty");
        if (record.value(QStringLiteral("title")).toString().trimmed().isEmpty()) {
            const QString host = QUrl(url).host();
            record.insert(QStringLiteral("title"), host.isEmpty() ? url : host);
        }
        return d->storeSource(sourceUid, kServer, record);
    });
}

void NimbrelState::disconnectBonjourIPService(const QVariantMap& server)
{
    d->change("disconnectBonjourIPService", kBonjourChange, [&]() -> QString {
        Input in(server);
        const QString uid = in.uid();
        if (!in.ok())
            return in.problem();
        if (d->db.scalar(QStringLiteral("SELECT kind FROM sources WHERE uid = ?"), {uid}).toString() !=
            kServer)
            return QStringLiteral("no remote server has the uid %1").arg(uid);
        return d->removeSource(uid);
    });
}

void NimbrelState::googleServiceOptions(const QVariantMap& settings)
{
    d->change("googleServiceOptions", kGoogleChange, [&]() -> QString {
        Input in(settings);
        in.string("remoteLogin");
        in.string("title");
        in.integer("syncInterval");
        in.boolean("remoteSSL");
        in.dictionary("syncOptions");
        if (!in.ok())
            return in.problem();
        const auto account = d->googleAccount();
        // One account: its uid stays whatever uid the settings carry.
        const QString uid = account ? account->uid : newUid();
        QVariantMap record = account ? account->record : QVariantMap();
        const QVariantMap incoming = withoutComputedKeys(settings);
        for (auto it = incoming.cbegin(); it != incoming.cend(); ++it)
            record.insert(it.key(), it.value());
        const QString login = record.value(QStringLiteral("remoteLogin")).toString().trimmed();
        if (login.isEmpty())
            return QStringLiteral("\"remoteLogin\" is missing or empty");
        if (record.value(QStringLiteral("title")).toString().trimmed().isEmpty())
            record.insert(QStringLiteral("title"), login);
        return d->storeSource(uid, kGoogle, record);
    });
}

void NimbrelState::disconnectGoogleService(const QVariantMap& settings)
{
    d->change("disconnectGoogleService", kGoogleChange, [&]() -> QString {
        Input in(settings);
        const QString uid = in.has("uid") ? in.string("uid") : QString();
        if (!in.ok())
            return in.problem();
        const auto account = d->googleAccount();
        if (!account)
            return QStringLiteral("there is no Google account");
        if (!uid.isEmpty() && uid != account->uid)
            return QStringLiteral("the uid %1 is not the Google account's").arg(uid);
        const QString problem = d->removeSource(account->uid);
        if (!problem.isEmpty())
            return problem;
        if (!d->db.exec(QStringLiteral("UPDATE calendars SET published_google = 0")))
            return d->writeProblem();
        return {};
    });
}

void NimbrelState::setBonjourPublisherInfo(const QVariantMap& info)
{
    d->change("setBonjourPublisherInfo", kNamePublished, [&]() -> QString {
        Input in(info);
        if (!in.has("bonjourName"))
            return QStringLiteral("\"bonjourName\" is missing");
        const QString name = in.string("bonjourName");
        const qint64 port = in.integer("portNumber");
        if (!in.ok())
            return in.problem();
        if (name.trimmed().isEmpty())
            return QStringLiteral("the Bonjour name is empty");
        if (name.toUtf8().size() > kMaxBonjourNameBytes)
            return QStringLiteral("the Bonjour name is longer than %1 bytes").arg(kMaxBonjourNameBytes);
        if (port < 0 || port > 65535)
            return QStringLiteral("the port %1 is outside 1-65535").arg(port);
        const QString upsert = QStringLiteral("INSERT INTO settings (key, value) VALUES (?, ?) "
                                              "ON CONFLICT (key) DO UPDATE SET value = excluded.value");
        if (!d->db.exec(upsert, {QStringLiteral("bonjourName"), name}) ||
            !d->db.exec(upsert, {QStringLiteral("portNumber"), port}))
            return d->writeProblem();
        return {};
    });
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
    const qint64 version = d->db.scalar(QStringLiteral("PRAGMA user_version")).toLongLong();
    lines << QStringLiteral("Database: %1 (schema version %2)").arg(d->databasePath).arg(version);
    lines << QStringLiteral("Calendars folder: %1").arg(d->calendarsRoot);
    lines << QStringLiteral("Local calendars: %1 (published via Bonjour: %2, to Google: %3)")
                 .arg(d->count(QStringLiteral("SELECT COUNT(*) FROM calendars")))
                 .arg(d->count(QStringLiteral("SELECT COUNT(*) FROM calendars WHERE published_bonjour != 0")))
                 .arg(d->count(QStringLiteral("SELECT COUNT(*) FROM calendars WHERE published_google != 0")));
    lines << QStringLiteral("Subscriptions: %1 (subscribed: %2)")
                 .arg(d->count(QStringLiteral("SELECT COUNT(*) FROM subscriptions")))
                 .arg(d->count(QStringLiteral("SELECT COUNT(*) FROM subscriptions WHERE subscribed != 0")));
    lines << QStringLiteral("Remote servers: %1")
                 .arg(d->count(QStringLiteral("SELECT COUNT(*) FROM sources WHERE kind = 'server'")));
    lines << QStringLiteral("Google account: %1")
                 .arg(d->count(QStringLiteral("SELECT COUNT(*) FROM sources WHERE kind = 'google'")) > 0
                          ? QStringLiteral("yes")
                          : QStringLiteral("no"));
    lines << QStringLiteral("Sync history rows: %1")
                 .arg(d->count(QStringLiteral("SELECT COUNT(*) FROM sync_history")));
    const QVariantMap info = bonjourPublisherInfo();
    lines << QStringLiteral("Bonjour name: %1").arg(info.value(QStringLiteral("bonjourName")).toString());
    lines << QStringLiteral("Port: %1")
                 .arg(info.contains(QStringLiteral("portNumber"))
                          ? QString::number(info.value(QStringLiteral("portNumber")).toLongLong())
                          : QStringLiteral("automatic"));
    return lines;
}

} // namespace nimbrel::background

#include "StateDatabase.h"

#include "StateSchema.h"
#include "logging/Log.h"

#include <QAtomicInteger>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSqlError>
#include <QSqlQuery>
#include <QStringList>
#include <algorithm>
#include <fcntl.h>
#include <unistd.h>

namespace nimbrel::background {

namespace {

constexpr auto kOwnerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;

// Every text column is NOT NULL: an absent string (a null QString) is stored as an empty one.
void bindAll(QSqlQuery& q, const QVariantList& bindings)
{
    for (const QVariant& value : bindings) {
        if (value.typeId() == QMetaType::QString && value.toString().isNull())
            q.addBindValue(QString::fromLatin1(""));
        else
            q.addBindValue(value);
    }
}

QString sqlError(const QSqlError& error)
{
    return error.text().isEmpty() ? QStringLiteral("unknown SQLite error") : error.text();
}

// SQLite gives the -wal and -shm files the mode of the database file, so the file is made 0600
// before SQLite first opens it.
bool ensurePrivateFile(const QString& path, QString* error)
{
    const QByteArray native = QFile::encodeName(path);
    const int fd = ::open(native.constData(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd < 0) {
        *error = QStringLiteral("cannot create %1: %2").arg(path, QString::fromLocal8Bit(strerror(errno)));
        return false;
    }
    ::close(fd);
    QFile::setPermissions(path, kOwnerOnly);
    return true;
}

// PRAGMA user_version of an existing file, read without changing anything; 0 when there is none.
int storedVersion(const QString& path)
{
    if (QFileInfo(path).size() == 0)
        return 0;
    const QString name = uniqueConnectionName(QStringLiteral("nimbrel-probe"));
    int version = 0;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
        db.setDatabaseName(path);
        db.setConnectOptions(QStringLiteral("QSQLITE_OPEN_READONLY"));
        if (db.open()) {
            QSqlQuery q(db);
            if (q.exec(QStringLiteral("PRAGMA user_version")) && q.next())
                version = q.value(0).toInt();
        }
        db.close();
    }
    QSqlDatabase::removeDatabase(name);
    return version;
}

} // namespace

QString uniqueConnectionName(const QString& prefix)
{
    static QAtomicInteger<quint64> counter;
    return QStringLiteral("%1-%2-%3").arg(prefix).arg(::getpid()).arg(++counter);
}

QSqlDatabase openConnection(const QString& name, const QString& path, QString* error)
{
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), name);
    db.setDatabaseName(path);
    db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=5000"));
    if (!db.open()) {
        *error = sqlError(db.lastError());
        return db;
    }
    // WAL with synchronous FULL: a committed transaction survives a crash or a power cut.
    QSqlQuery q(db);
    if (!q.exec(QStringLiteral("PRAGMA journal_mode=WAL")) || !q.next() ||
        q.value(0).toString().compare(QLatin1String("wal"), Qt::CaseInsensitive) != 0) {
        *error = q.lastError().isValid() ? sqlError(q.lastError()) : QStringLiteral("WAL journal refused");
        db.close();
        return db;
    }
    for (const char* pragma : {"PRAGMA synchronous=FULL", "PRAGMA foreign_keys=ON"}) {
        if (!q.exec(QLatin1String(pragma))) {
            *error = sqlError(q.lastError());
            db.close();
            return db;
        }
    }
    return db;
}

StateDatabase::StateDatabase() = default;

StateDatabase::~StateDatabase()
{
    close();
}

QString StateDatabase::writeProblem() const
{
    return QStringLiteral("cannot write the database: %1").arg(m_error);
}

QSqlDatabase StateDatabase::handle() const
{
    return QSqlDatabase::database(m_name, false);
}

void StateDatabase::dropConnection()
{
    if (m_name.isEmpty())
        return;
    {
        QSqlDatabase db = QSqlDatabase::database(m_name, false);
        db.close();
    }
    QSqlDatabase::removeDatabase(m_name);
    m_name.clear();
}

void StateDatabase::close()
{
    if (!m_name.isEmpty()) {
        // Fold the WAL back into the file so that another program (the reset tool) sees one file.
        exec(QStringLiteral("PRAGMA wal_checkpoint(TRUNCATE)"));
    }
    dropConnection();
}

bool StateDatabase::open(const QString& path)
{
    close();
    m_path = path;
    m_error.clear();
    QString why;
    Outcome outcome = tryOpen(&why);
    if (outcome == Outcome::Unusable) {
        if (!moveAside(why))
            return false;
        outcome = tryOpen(&why);
    }
    if (outcome != Outcome::Ready) {
        dropConnection();
        m_error = why;
        Log(13, "StateDatabase: cannot open %@: %@", path, why);
        return false;
    }
    QFile::setPermissions(m_path, kOwnerOnly);
    return true;
}

StateDatabase::Outcome StateDatabase::tryOpen(QString* why)
{
    const QFileInfo info(m_path);
    if (!QDir().mkpath(info.absolutePath())) {
        *why = QStringLiteral("cannot create the folder %1").arg(info.absolutePath());
        return Outcome::Failed;
    }
    // A file of a newer version is not damaged: refused before anything could change it.
    if (const int version = storedVersion(m_path); version > kSchemaVersion) {
        *why =
            QStringLiteral("it was written by a newer version of Nimbrel (schema %1; this version reads up "
                           "to %2) and is left as it is; start the newer version, or move the file away to "
                           "start afresh")
                .arg(version)
                .arg(kSchemaVersion);
        return Outcome::Failed;
    }
    if (!ensurePrivateFile(m_path, why))
        return info.exists() ? Outcome::Unusable : Outcome::Failed;

    m_name = uniqueConnectionName(QStringLiteral("nimbrel-state"));
    QString error;
    if (!openConnection(m_name, m_path, &error).isOpen()) {
        *why = error;
        dropConnection();
        return Outcome::Unusable;
    }

    const QVariant check = scalar(QStringLiteral("PRAGMA quick_check"));
    if (check.toString() != QLatin1String("ok")) {
        *why = check.isValid() ? QStringLiteral("integrity check failed: %1").arg(check.toString()) : m_error;
        dropConnection();
        return Outcome::Unusable;
    }
    const int version = scalar(QStringLiteral("PRAGMA user_version")).toInt();
    QStringList tables;
    {
        QSqlQuery q(handle());
        q.exec(QStringLiteral(
            "SELECT name FROM sqlite_master WHERE type = 'table' AND name NOT LIKE 'sqlite_%'"));
        while (q.next())
            tables << q.value(0).toString();
    }

    auto fail = [&](const QString& reason) {
        *why = reason;
        dropConnection();
        return Outcome::Unusable;
    };
    if (version == 0 && !tables.isEmpty())
        return fail(QStringLiteral("the file holds tables of another program"));
    for (const QString& table : schemaTables(version)) {
        if (version > 0 && !tables.contains(table))
            return fail(QStringLiteral("table %1 is missing").arg(table));
    }

    if (version < kSchemaVersion) {
        const bool ok = [&] {
            if (!begin())
                return false;
            const QList<QStringList> steps = version == 0 ? QList<QStringList>{schemaCreateStatements()}
                                                          : schemaMigrationSteps().mid(version - 1);
            for (const QStringList& step : steps) {
                for (const QString& statement : step) {
                    if (!exec(statement))
                        return false;
                }
            }
            return exec(QStringLiteral("PRAGMA user_version = %1").arg(kSchemaVersion)) && commit();
        }();
        if (!ok) {
            rollback();
            return fail(QStringLiteral("cannot update schema %1 to %2: %3")
                            .arg(version)
                            .arg(kSchemaVersion)
                            .arg(m_error));
        }
        if (version > 0)
            Log(13, "StateDatabase: migrated %@ from schema %d to %d", m_path, version, kSchemaVersion);
    }
    return Outcome::Ready;
}

// Each unusable file is kept as <path>.corrupt.<n>, n counting up; the newest kKeptCorruptFiles stay.
bool StateDatabase::moveAside(const QString& why)
{
    dropConnection();
    const QFileInfo info(m_path);
    const QString prefix = info.fileName() + QStringLiteral(".corrupt.");
    QList<int> numbers;
    for (const QString& name : info.dir().entryList({prefix + QLatin1Char('*')}, QDir::Files)) {
        bool ok = false;
        const int n = name.mid(prefix.size()).toInt(&ok);
        if (ok && n > 0)
            numbers << n;
    }
    std::sort(numbers.begin(), numbers.end());
    const QString aside =
        m_path + QStringLiteral(".corrupt.%1").arg(numbers.isEmpty() ? 1 : numbers.last() + 1);
    // The journal files belong to the bad file: they go with it or they would be replayed into the new one.
    QFile::rename(m_path + QStringLiteral("-wal"), aside + QStringLiteral("-wal"));
    QFile::remove(m_path + QStringLiteral("-shm"));
    if (QFile::exists(m_path) && !QFile::rename(m_path, aside)) {
        m_error = QStringLiteral("cannot move %1 aside").arg(m_path);
        Log(13, "StateDatabase: %@ (%@)", m_error, why);
        return false;
    }
    for (qsizetype i = 0; i + kKeptCorruptFiles - 1 < numbers.size(); ++i) {
        const QString old = m_path + QStringLiteral(".corrupt.%1").arg(numbers[i]);
        QFile::remove(old);
        QFile::remove(old + QStringLiteral("-wal"));
    }
    Log(13, "StateDatabase: moved unusable database %@ to %@ (%@); starting afresh", m_path, aside, why);
    return true;
}

bool StateDatabase::exec(const QString& sql, const QVariantList& bindings)
{
    QSqlQuery q(handle());
    if (!q.prepare(sql)) {
        m_error = sqlError(q.lastError());
        return false;
    }
    bindAll(q, bindings);
    if (!q.exec()) {
        m_error = sqlError(q.lastError());
        return false;
    }
    return true;
}

QVariant StateDatabase::scalar(const QString& sql, const QVariantList& bindings)
{
    QSqlQuery q(handle());
    if (!q.prepare(sql)) {
        m_error = sqlError(q.lastError());
        return {};
    }
    bindAll(q, bindings);
    if (!q.exec()) {
        m_error = sqlError(q.lastError());
        return {};
    }
    return q.next() ? q.value(0) : QVariant();
}

bool StateDatabase::begin()
{
    if (handle().transaction())
        return true;
    m_error = sqlError(handle().lastError());
    return false;
}

bool StateDatabase::commit()
{
    if (handle().commit())
        return true;
    m_error = sqlError(handle().lastError());
    return false;
}

void StateDatabase::rollback()
{
    handle().rollback();
}

bool StateDatabase::wipe()
{
    if (!begin())
        return false;
    // Children before parents, for the foreign key.
    for (const char* table : {"subscriptions", "sources", "calendars", "settings", "sync_history"}) {
        if (!exec(QStringLiteral("DELETE FROM %1").arg(QLatin1String(table)))) {
            rollback();
            return false;
        }
    }
    if (!commit()) {
        rollback();
        return false;
    }
    return true;
}

} // namespace nimbrel::background

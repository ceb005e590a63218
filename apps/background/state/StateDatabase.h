#pragma once

// The SQLite file Nimbrel.nsql: opening (with recovery from a file that is not a usable database of
// ours), the versioned schema (StateSchema.h) and its migrations, and small query helpers.

#include "StateSchema.h"

#include <QSqlDatabase>
#include <QString>
#include <QVariant>
#include <QVariantList>

namespace nimbrel::background {

class StateDatabase
{
public:
    static constexpr int kKeptCorruptFiles = 5;

    StateDatabase();
    ~StateDatabase();
    StateDatabase(const StateDatabase&) = delete;
    StateDatabase& operator=(const StateDatabase&) = delete;

    // Opens `path`, creating it (mode 0600) or migrating it as needed. A file that SQLite cannot read,
    // that fails its integrity check or holds tables of someone else is moved aside to
    // "<path>.corrupt.<n>" (logged; the newest kKeptCorruptFiles are kept) and a fresh database is made
    // in its place. A file of a newer schema is refused and left untouched (false, lastError() says so).
    bool open(const QString& path);
    void close();
    bool isOpen() const { return !m_name.isEmpty(); }

    QString path() const { return m_path; }
    QString lastError() const { return m_error; }
    // "cannot write the database: <lastError()>"
    QString writeProblem() const;
    // The connection (only valid while open; do not keep it past close()).
    QSqlDatabase handle() const;

    // Runs one statement with positional bindings (a null QString binds as ''). False (and lastError())
    // on failure.
    bool exec(const QString& sql, const QVariantList& bindings = {});
    // The first column of the first row, or an invalid QVariant.
    QVariant scalar(const QString& sql, const QVariantList& bindings = {});

    bool begin();
    bool commit();
    void rollback();

    // Empties the user's state: per-calendar settings, sources, subscriptions, settings and the sync
    // history. The calendar store's index of the folders stays (the folders stay too).
    bool wipe();

private:
    enum class Outcome
    {
        Ready,
        Unusable, // not a database of ours: move aside and start again
        Failed    // could not even try (folder, permissions): give up
    };
    Outcome tryOpen(QString* why);
    bool moveAside(const QString& why);
    void dropConnection();

    QString m_path;
    QString m_name; // connection name while open
    QString m_error;
};

// Opens a connection named `name` on `path` with the settings every user of the file shares (WAL,
// synchronous FULL, foreign keys, busy time-out). The caller removes the connection.
QSqlDatabase openConnection(const QString& name, const QString& path, QString* error);
QString uniqueConnectionName(const QString& prefix);

} // namespace nimbrel::background

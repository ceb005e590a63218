#pragma once

// Shared by the background application's tests: dictionaries in one line, SQL on a connection of the
// test's own, vdir calendars made by hand, a capture of standard error (where Log writes) and a
// dbus-daemon of the test's own.

#include "logging/Log.h"
#include "state/StateDatabase.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QSqlQuery>
#include <cstdio>
#include <gtest/gtest.h>
#include <type_traits>
#include <unistd.h>

namespace nimbrel::background::test {

using nimbrel::test::makeTempDir;
using nimbrel::test::s;

// m("key", value, "key", value, ...): a dictionary, C strings taken as text.
inline void put(QVariantMap&) {}
template <class V, class... Rest>
void put(QVariantMap& map, const char* key, const V& value, const Rest&... rest)
{
    if constexpr (std::is_convertible_v<V, const char*>)
        map.insert(s(key), s(value));
    else
        map.insert(s(key), QVariant(value));
    put(map, rest...);
}
template <class... Args> QVariantMap m(const Args&... args)
{
    QVariantMap map;
    put(map, args...);
    return map;
}

// Runs `statement` on a connection of its own and returns the first column of every row.
inline QVariantList sql(const QString& path, const char* statement, const QVariantList& bindings = {})
{
    QVariantList values;
    const QString name = uniqueConnectionName(s("peek"));
    {
        QString error;
        QSqlDatabase db = openConnection(name, path, &error);
        EXPECT_TRUE(db.isOpen()) << error.toStdString();
        QSqlQuery q(db);
        EXPECT_TRUE(q.prepare(s(statement))) << statement;
        for (const QVariant& value : bindings)
            q.addBindValue(value);
        EXPECT_TRUE(q.exec()) << statement;
        while (q.next())
            values << q.value(0);
    }
    QSqlDatabase::removeDatabase(name);
    return values;
}

inline void writeFile(const QString& path, const QByteArray& data)
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(data);
}

inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// A vdir calendar: <root>/<uid>/displayname, color and the given .ics files.
inline void makeCalendar(const QString& root, const char* uid, const char* title,
                         const QMap<QString, QByteArray>& items = {}, const char* color = "")
{
    const QString folder = root + QLatin1Char('/') + s(uid);
    writeFile(folder + s("/displayname"), QByteArray(title) + '\n');
    if (*color)
        writeFile(folder + s("/color"), color);
    for (auto it = items.cbegin(); it != items.cend(); ++it)
        writeFile(folder + QLatin1Char('/') + it.key(), it.value());
}

// One key of every row.
inline QStringList column(const QVariantList& rows, const char* key)
{
    QStringList values;
    for (const QVariant& row : rows)
        values << row.toMap().value(s(key)).toString();
    return values;
}

// Standard error goes to a file for as long as this lives, at the given log level.
class StderrCapture
{
public:
    explicit StderrCapture(long level = nimbrel::gLogLevel)
        : m_path(makeTempDir() + s("/stderr.txt")), m_level(nimbrel::gLogLevel)
    {
        std::fflush(stderr);
        m_saved = dup(2);
        std::FILE* file = std::fopen(QFile::encodeName(m_path).constData(), "w");
        dup2(fileno(file), 2);
        std::fclose(file);
        nimbrel::gLogLevel = level;
    }
    ~StderrCapture()
    {
        nimbrel::gLogLevel = m_level;
        std::fflush(stderr);
        dup2(m_saved, 2);
        ::close(m_saved);
    }
    QString text() const
    {
        std::fflush(stderr);
        return QString::fromUtf8(readFile(m_path));
    }

private:
    QString m_path;
    long m_level;
    int m_saved = -1;
};

// A dbus-daemon of the test's own, beside the session bus the test runs on: a second session, or a
// bus to take away.
class PrivateBus
{
public:
    PrivateBus()
    {
        m_daemon.start(s("dbus-daemon"), {s("--session"), s("--nofork"), s("--print-address")});
        if (m_daemon.waitForStarted() && m_daemon.waitForReadyRead(5000))
            m_address = QString::fromUtf8(m_daemon.readLine().trimmed());
    }
    ~PrivateBus() { stop(); }
    QString address() const { return m_address; }
    void stop()
    {
        m_daemon.kill();
        m_daemon.waitForFinished();
    }

private:
    QProcess m_daemon;
    QString m_address;
};

} // namespace nimbrel::background::test

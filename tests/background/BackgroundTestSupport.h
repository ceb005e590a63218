#pragma once

// Shared by the background application's tests: dictionaries in one line, SQL on a connection of the
// test's own, files and calendars made by hand, standard error (where Log writes) captured, and a
// dbus-daemon of the test's own (another session, or a bus to take away).

#include "logging/Log.h"
#include "state/StateDatabase.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QProcess>
#include <QSqlQuery>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

namespace nimbrel::background::test {

using nimbrel::test::makeTempDir;
using nimbrel::test::s;

// m("key", value, ...): a dictionary, C strings taken as text.
template <class... Args> QVariantMap m(const Args&... args)
{
    const auto value = []<class V>(const V& v) {
        if constexpr (std::is_convertible_v<V, const char*>)
            return QVariant(s(v));
        else
            return QVariant(v);
    };
    const QVariantList flat{value(args)...};
    QVariantMap map;
    for (qsizetype i = 0; i + 1 < flat.size(); i += 2)
        map.insert(flat[i].toString(), flat[i + 1]);
    return map;
}

// The first column of every row of `statement`, run on a connection of its own.
inline QVariantList sql(const QString& path, const char* statement, const QVariantList& bindings = {})
{
    QVariantList values;
    const QString name = uniqueConnectionName(s("peek"));
    {
        QString error;
        QSqlQuery q(openConnection(name, path, &error));
        EXPECT_TRUE(q.prepare(s(statement))) << statement << " " << error.toStdString();
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
    EXPECT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate)) << path.toStdString();
    file.write(data);
}

inline QByteArray readFile(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// <root>/<uid>/displayname, color and the given .ics files.
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

// Standard error goes to a file for as long as this lives, at the given log level.
struct StderrCapture
{
    explicit StderrCapture(long level) : level(std::exchange(nimbrel::gLogLevel, level))
    {
        std::fflush(stderr);
        const int fd = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        ::dup2(fd, 2);
        ::close(fd);
    }
    ~StderrCapture()
    {
        nimbrel::gLogLevel = level;
        std::fflush(stderr);
        ::dup2(saved, 2);
        ::close(saved);
    }
    QString text() const { return std::fflush(stderr), QString::fromUtf8(readFile(path)); }
    QString path = makeTempDir() + s("/stderr.txt");
    long level;
    int saved = ::dup(2);
};

struct PrivateBus
{
    PrivateBus()
    {
        daemon.start(s("dbus-daemon"), {s("--session"), s("--nofork"), s("--print-address")});
        daemon.waitForReadyRead(5000);
        address = QString::fromUtf8(daemon.readLine().trimmed());
    }
    ~PrivateBus() { stop(); }
    void stop()
    {
        daemon.kill();
        daemon.waitForFinished();
    }
    QProcess daemon;
    QString address;
};

} // namespace nimbrel::background::test

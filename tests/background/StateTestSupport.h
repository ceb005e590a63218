#pragma once

// Shared by the state_*_test programs: a state in a private folder that records what it posts,
// a second connection to look at the file the way another process would, vdir calendars made by
// hand, and a capture of standard error (where Log writes).

#include "NimbrelState.h"
#include "StateDatabase.h"
#include "platform/PlistCodec.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QSqlQuery>
#include <QSqlRecord>
#include <cstdio>
#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>

namespace nimbrel::background::test {

using nimbrel::test::makeTempDir;

// Runs `sql` on its own connection and returns the first column of every row.
inline QVariantList peek(const QString& path, const QString& sql)
{
    QVariantList values;
    const QString name = uniqueConnectionName(QStringLiteral("peek"));
    {
        QString error;
        QSqlDatabase db = openConnection(name, path, &error);
        EXPECT_TRUE(db.isOpen()) << error.toStdString();
        QSqlQuery q(db);
        EXPECT_TRUE(q.exec(sql)) << sql.toStdString();
        while (q.next())
            values << q.value(0);
    }
    QSqlDatabase::removeDatabase(name);
    return values;
}

inline QVariant peekOne(const QString& path, const QString& sql)
{
    return peek(path, sql).value(0);
}

inline void poke(const QString& path, const QString& sql, const QVariantList& bindings = {})
{
    const QString name = uniqueConnectionName(QStringLiteral("poke"));
    {
        QString error;
        QSqlDatabase db = openConnection(name, path, &error);
        QSqlQuery q(db);
        ASSERT_TRUE(q.prepare(sql)) << sql.toStdString();
        for (const QVariant& value : bindings)
            q.addBindValue(value);
        ASSERT_TRUE(q.exec()) << sql.toStdString();
    }
    QSqlDatabase::removeDatabase(name);
}

inline QByteArray plistBlob(const QVariantMap& map)
{
    return plist::write(map).value_or(QByteArray());
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
inline void makeCalendar(const QString& root, const QString& uid, const QString& title,
                         const QMap<QString, QByteArray>& items = {}, const QString& color = {})
{
    const QString folder = root + QLatin1Char('/') + uid;
    writeFile(folder + QStringLiteral("/displayname"), title.toUtf8() + '\n');
    if (!color.isEmpty())
        writeFile(folder + QStringLiteral("/color"), color.toUtf8());
    for (auto it = items.cbegin(); it != items.cend(); ++it)
        writeFile(folder + QLatin1Char('/') + it.key(), it.value());
}

// Standard error goes to a file for as long as this lives.
class StderrCapture
{
public:
    StderrCapture() : m_path(makeTempDir() + QStringLiteral("/stderr.txt"))
    {
        std::fflush(stderr);
        m_saved = dup(2);
        std::FILE* file = std::fopen(QFile::encodeName(m_path).constData(), "w");
        dup2(fileno(file), 2);
        std::fclose(file);
    }
    ~StderrCapture()
    {
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
    int m_saved = -1;
};

// A state in its own folder; `posts` records every notification, `onPost` may look at the disk.
class StateFixture : public ::testing::Test
{
protected:
    QString root = makeTempDir();
    QString dbPath = root + QStringLiteral("/Nimbrel.nsql");
    QString calendarsRoot = root + QStringLiteral("/Calendars");
    QString backupRoot = root + QStringLiteral("/Backup");
    QStringList posts;
    std::function<void(const QString&)> onPost;

    std::unique_ptr<NimbrelState> makeState()
    {
        return std::make_unique<NimbrelState>(dbPath, calendarsRoot, backupRoot, [this](const QString& name) {
            posts << name;
            if (onPost)
                onPost(name);
        });
    }
    std::unique_ptr<NimbrelState> openState()
    {
        auto state = makeState();
        EXPECT_TRUE(state->open()) << state->lastError().toStdString();
        return state;
    }
};

} // namespace nimbrel::background::test

#pragma once

// Shared by the logging tests: a fixture that gives each test its own log folder, sends standard
// error to files the test reads, and puts the module state back afterwards.

#include "logging/Log.h"
#include "logging/LogClock.h"
#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QStringList>
#include <cstdio>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nimbrel::test {

class LogFixture : public ::testing::Test
{
protected:
    void SetUp() override
    {
        std::fflush(stderr);
        savedStandardError = dup(2);
        stateDir = makeTempDir();
        qputenv("XDG_STATE_HOME", QFile::encodeName(stateDir));
        resetState();
    }

    void TearDown() override
    {
        CloseFilteredLogFile();
        std::fflush(stderr);
        dup2(savedStandardError, 2);
        close(savedStandardError);
        std::setvbuf(stderr, nullptr, _IONBF, 0);
        resetState();
    }

    static void resetState()
    {
        logdetail::setLogClock({});
        logdetail::setLoggerPath({});
        gLogLevel = 2;
        gLogKeepCount = 0;
        gLogBytesWritten = 0;
        gLogDirty = false;
        gFilteredLogBytes = 0;
        gFilteredLogUpdateMode = false;
    }

    // Prepares the log of `name` and sends standard error to it, as a host does at start.
    QString startLog(const QString& name, long keepCount = 5)
    {
        const QString path = prepLogFilePath(name, keepCount);
        EXPECT_FALSE(path.isNull());
        EXPECT_EQ(ReopenStandardError(path), 0);
        return path;
    }

    QString logFolder(const QString& name) const { return stateDir + QLatin1Char('/') + name; }

    static QByteArray contents(const QString& path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    // The lines of `path` with the "<date> - " part removed.
    static QStringList messages(const QString& path)
    {
        QStringList result;
        for (const QByteArray& line : contents(path).split('\n')) {
            if (line.isEmpty())
                continue;
            const qsizetype separator = line.indexOf(" - ");
            result << QString::fromUtf8(separator < 0 ? line : line.mid(separator + 3));
        }
        return result;
    }

    // A script standing in for the system logger: it writes its arguments, NUL-terminated, to
    // $FAKE_LOGGER_OUT. Returns the file it writes to.
    QString installFakeLogger()
    {
        const QString dir = makeTempDir();
        const QString script = dir + QLatin1String("/logger");
        const QString out = dir + QLatin1String("/arguments");
        QFile file(script);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done > \"$FAKE_LOGGER_OUT\"\n");
        file.close();
        chmod(QFile::encodeName(script).constData(), 0755);
        qputenv("FAKE_LOGGER_OUT", QFile::encodeName(out));
        logdetail::setLoggerPath(QFile::encodeName(script).toStdString());
        return out;
    }

    QString stateDir;

private:
    int savedStandardError = -1;
};

} // namespace nimbrel::test

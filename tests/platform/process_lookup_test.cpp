// Finding running processes by bundle identifier, with real processes: copies of /bin/sleep inside
// temporary app bundles.

#include "platform/PlistCodec.h"
#include "platform/ProcessLookup.h"
#include "support/TestEnvironment.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <gtest/gtest.h>
#include <memory>
#include <vector>

using namespace nimbrel;

namespace {

// An app bundle folder holding a copy of /bin/sleep as `executable`, with an Info.plist naming
// `named` as CFBundleExecutable.
QString makeBundle(const QString& folder, const QString& identifier, const QString& executable,
                   const QString& named)
{
    const QString path = test::makeTempDir() + QLatin1Char('/') + folder;
    EXPECT_TRUE(QDir().mkpath(path));
    EXPECT_TRUE(QFile::copy(QStringLiteral("/bin/sleep"), path + QLatin1Char('/') + executable));
    const QVariantMap info{{QStringLiteral("CFBundleIdentifier"), identifier},
                           {QStringLiteral("CFBundleExecutable"), named}};
    EXPECT_TRUE(plist::writeFile(path + QStringLiteral("/Info.plist"), info));
    return path + QLatin1Char('/') + executable;
}

QString makeBundle(const QString& folder, const QString& identifier)
{
    return makeBundle(folder, identifier, QStringLiteral("sleeper"), QStringLiteral("sleeper"));
}

class ProcessLookup : public ::testing::Test
{
protected:
    void TearDown() override
    {
        for (const auto& process : m_processes) {
            process->kill();
            process->waitForFinished();
        }
    }

    qint64 run(const QString& executable)
    {
        auto process = std::make_unique<QProcess>();
        process->start(executable, {QStringLiteral("60")});
        EXPECT_TRUE(process->waitForStarted()) << qPrintable(process->errorString());
        const qint64 pid = process->processId();
        m_processes.push_back(std::move(process));
        return pid;
    }

private:
    std::vector<std::unique_ptr<QProcess>> m_processes;
};

// Unique per test process: tests running in parallel start sleepers of their own.
const QString kIdentifier = QStringLiteral("com.example.Sleeper%1").arg(QCoreApplication::applicationPid());

} // namespace

TEST_F(ProcessLookup, FindsTheRunningBundleByIdentifier)
{
    EXPECT_EQ(findProcessByBundleIdentifier(kIdentifier), 0);
    const QString executable = makeBundle(QStringLiteral("Sleeper.app"), kIdentifier);
    EXPECT_EQ(findProcessByBundleIdentifier(kIdentifier), 0); // the bundle alone is no process
    const qint64 pid = run(executable);
    ASSERT_GT(pid, 0);
    EXPECT_EQ(findProcessByBundleIdentifier(kIdentifier), pid);
    EXPECT_EQ(findProcessByBundleIdentifier(QStringLiteral("com.example.Other")), 0);
    EXPECT_EQ(findProcessByBundleIdentifier(QString()), 0);

    // Replaced on disk while running (an update): the link ends in " (deleted)", still the same app.
    ASSERT_TRUE(QFile::remove(executable));
    EXPECT_EQ(findProcessByBundleIdentifier(kIdentifier), pid);
}

TEST_F(ProcessLookup, TwoInstancesGiveTheLowerPid)
{
    const qint64 first = run(makeBundle(QStringLiteral("One.app"), kIdentifier));
    const qint64 second = run(makeBundle(QStringLiteral("Two.app"), kIdentifier));
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    EXPECT_EQ(findProcessByBundleIdentifier(kIdentifier), std::min(first, second));
}

TEST_F(ProcessLookup, OnlyTheExecutableNamedByInfoPlistCounts)
{
    const QString stray = makeBundle(QStringLiteral("Stray.app"), kIdentifier, QStringLiteral("helper"),
                                     QStringLiteral("sleeper"));
    ASSERT_GT(run(stray), 0);
    EXPECT_EQ(findProcessByBundleIdentifier(kIdentifier), 0);

    EXPECT_EQ(bundleIdentifierForExecutable(stray), QString());
    const QString proper = makeBundle(QStringLiteral("Proper.app"), kIdentifier);
    EXPECT_EQ(bundleIdentifierForExecutable(proper), kIdentifier);
    EXPECT_EQ(bundleIdentifierForExecutable(proper + QStringLiteral(" (deleted)")), kIdentifier);
    EXPECT_EQ(bundleIdentifierForExecutable(QStringLiteral("/bin/sleep")), QString()); // no Info.plist
    EXPECT_EQ(bundleIdentifierForExecutable(QString()), QString());
}

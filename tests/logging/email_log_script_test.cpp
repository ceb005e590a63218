// The mail hand-off script as installed in the pane bundle, run against a stand-in xdg-email.

#include "support/TestEnvironment.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <gtest/gtest.h>

using namespace nimbrel;

namespace {

class EmailLogScriptTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        work = test::makeTempDir();
        bin = work + QStringLiteral("/bin");
        QDir().mkpath(bin);
        record = work + QStringLiteral("/args");
        zip = work + QStringLiteral("/my \"support\" 'logs' $(x).zip");
        QFile(zip).open(QIODevice::WriteOnly);
    }

    // A stand-in that writes its arguments, NUL-separated, and exits with `status`.
    void installFakeMailer(int status)
    {
        QFile fake(bin + QStringLiteral("/xdg-email"));
        ASSERT_TRUE(fake.open(QIODevice::WriteOnly));
        fake.write("#!/bin/sh\nfor a in \"$@\"; do printf '%s\\0' \"$a\"; done > '" + record.toUtf8() +
                   "'\nexit " + QByteArray::number(status) + "\n");
        fake.setPermissions(QFile::ReadOwner | QFile::WriteOwner | QFile::ExeOwner);
    }

    int runScript(const QStringList& arguments)
    {
        QProcess process;
        QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
        environment.insert(QStringLiteral("PATH"), bin); // only the stand-in, if any
        process.setProcessEnvironment(environment);
        process.setWorkingDirectory(work);
        process.start(QStringLiteral("/bin/sh"), QStringList{script} + arguments);
        process.waitForFinished();
        errors = QString::fromUtf8(process.readAllStandardError());
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    QStringList recorded() const
    {
        QFile file(record);
        if (!file.open(QIODevice::ReadOnly))
            return {};
        return QString::fromUtf8(file.readAll()).split(QChar(0), Qt::SkipEmptyParts);
    }

    const QString script = test::paneBundlePath() + QStringLiteral("/Resources/EmailLogScript.sh");
    QString work, bin, record, zip, errors;
};

TEST_F(EmailLogScriptTest, InstalledExecutable)
{
    EXPECT_TRUE(QFileInfo(script).isExecutable());
}

TEST_F(EmailLogScriptTest, HostileSubjectAndPathArriveVerbatim)
{
    installFakeMailer(0);
    const QString subject = QStringLiteral("a \"b\" $(touch PWNED) `touch PWNED` ; rm -rf /tmp/q\n-x %s \\n");
    EXPECT_EQ(runScript({subject, zip}), 0);
    EXPECT_EQ(recorded(),
              (QStringList{QStringLiteral("--subject"), subject, QStringLiteral("--attach"), zip}));
    EXPECT_FALSE(QFile::exists(work + QStringLiteral("/PWNED")));
}

TEST_F(EmailLogScriptTest, ExitsWithTheMailerStatus)
{
    installFakeMailer(3);
    EXPECT_EQ(runScript({QStringLiteral("subject"), zip}), 3);
}

TEST_F(EmailLogScriptTest, RefusesBadCalls)
{
    installFakeMailer(0);
    EXPECT_EQ(runScript({QStringLiteral("only a subject")}), 64);
    EXPECT_EQ(runScript({QStringLiteral("s"), zip, QStringLiteral("extra")}), 64);
    EXPECT_EQ(runScript({QStringLiteral("s"), work + QStringLiteral("/missing.zip")}), 66);
    EXPECT_TRUE(errors.contains(QStringLiteral("missing.zip")));
    EXPECT_TRUE(recorded().isEmpty());
}

TEST_F(EmailLogScriptTest, MissingMailerIsReported)
{
    EXPECT_EQ(runScript({QStringLiteral("s"), zip}), 2);
    EXPECT_TRUE(errors.contains(QStringLiteral("xdg-email not found")));
}

} // namespace

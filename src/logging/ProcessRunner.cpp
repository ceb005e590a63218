#include "logging/SupportBundlePrivate.h"
#include "platform/ProcessLaunch.h"

#include <QProcess>

namespace nimbrel {

namespace {

// Tools are waited for without a practical limit; the limit only keeps a hung tool from hanging
// the caller forever.
constexpr int kSafetyLimitMs = 10 * 60 * 1000;

class QProcessRunner final : public ProcessRunner
{
public:
    ProcessResult run(const QString& program, const QStringList& arguments,
                      const QProcessEnvironment& environment) override
    {
        ProcessResult result;
        QProcess process;
        if (!environment.isEmpty())
            process.setProcessEnvironment(environment);
        process.start(program, arguments);
        if (!process.waitForStarted(-1))
            return result;
        result.started = true;
        process.closeWriteChannel(); // a tool that reads standard input sees its end at once
        if (!process.waitForFinished(kSafetyLimitMs)) {
            process.kill();
            process.waitForFinished(-1);
        }
        result.crashed = process.exitStatus() == QProcess::CrashExit;
        result.exitStatus = result.crashed ? -1 : process.exitCode();
        result.standardOutput = process.readAllStandardOutput();
        result.standardError = process.readAllStandardError();
        return result;
    }
};

ProcessRunner* gRunner = nullptr;

std::function<bool(const QString&)>& urlOpener()
{
    static std::function<bool(const QString&)> opener;
    return opener;
}

} // namespace

ProcessRunner& processRunner()
{
    static QProcessRunner defaultRunner;
    return gRunner ? *gRunner : defaultRunner;
}

void setProcessRunner(ProcessRunner* runner)
{
    gRunner = runner;
}

void setUrlOpener(std::function<bool(const QString& url)> opener)
{
    urlOpener() = std::move(opener);
}

namespace supportbundle {

bool succeeded(const ProcessResult& result)
{
    return result.started && !result.crashed && result.exitStatus == 0;
}

QString describe(const ProcessResult& result)
{
    if (!result.started)
        return QStringLiteral("not started");
    QString text =
        result.crashed ? QStringLiteral("crashed") : QStringLiteral("exit status %1").arg(result.exitStatus);
    const QString error = QString::fromUtf8(result.standardError).trimmed();
    if (!error.isEmpty())
        text += QStringLiteral("; stderr: ") + error;
    const QString output = QString::fromUtf8(result.standardOutput).trimmed();
    if (!output.isEmpty())
        text += QStringLiteral("; stdout: ") + output;
    return text;
}

bool openUrl(const QString& url)
{
    if (urlOpener())
        return urlOpener()(url);
    return openUrlWithDesktop(url);
}

} // namespace supportbundle

} // namespace nimbrel

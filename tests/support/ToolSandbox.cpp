#include "support/ToolSandbox.h"

#include <QFile>
#include <QRegularExpression>

namespace {
constexpr int kToolTimeoutMs = 240000;
}

ToolSandbox::ToolSandbox(const QByteArray &extraGlobalConfig)
{
    QDir().mkpath(installation());
    QDir().mkpath(dataDirectory() + QStringLiteral("/logs"));
    QDir().mkpath(workDirectory());
    writeConfig("InstallationFolder=" + installation().toUtf8() + "\n[global]\nrestaddress=127.0.0.1\nrestport=8008\n"
        + extraGlobalConfig + "\n[internal]\ndata_directory=" + dataDirectory().toUtf8() + "\n");
}

QString ToolSandbox::configPath() const
{
    return QDir(workDirectory()).filePath(QStringLiteral("HKEY_LOCAL_MACHINE\\Software\\Tarvex\\Bravik"));
}

QString ToolSandbox::runLogPath() const
{
    return dataDirectory()
        + QStringLiteral("/logs/data_normalizer-%1.log").arg(QDate::currentDate().toString(QStringLiteral("yyyyMMdd")));
}

QByteArray ToolSandbox::runLog() const
{
    QFile file(runLogPath());
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QString ToolSandbox::runLogMasked() const
{
    static const QRegularExpression stamp(QStringLiteral("\\d{4}\\.\\d{2}\\.\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}"));
    return QString::fromUtf8(runLog()).replace(stamp, QStringLiteral("<ts>"));
}

void ToolSandbox::writeConfig(const QByteArray &text) const
{
    QFile file(configPath());
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(text);
}

ToolSandbox::Result ToolSandbox::runTool(const QStringList &arguments) const
{
    return run(QStringLiteral(ZENTRIX_TOOL_PATH), arguments, workDirectory());
}

ToolSandbox::Result ToolSandbox::runDbInfo(const QStringList &arguments) const
{
    return run(QStringLiteral(ZENTRIX_DBINFO_PATH), arguments, workDirectory());
}

ToolSandbox::Result ToolSandbox::run(const QString &program, const QStringList &arguments, const QString &workDirectory)
{
    QProcess process;
    process.setWorkingDirectory(workDirectory);
    process.start(program, arguments);
    Result result;
    if (!process.waitForFinished(kToolTimeoutMs)) {
        process.kill();
        process.waitForFinished();
        result.crashed = true;
        return result;
    }
    result.crashed = process.exitStatus() == QProcess::CrashExit;
    result.exitCode = process.exitCode();
    result.out = process.readAllStandardOutput();
    result.err = process.readAllStandardError();
    return result;
}

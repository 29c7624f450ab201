#include "support/ToolSandbox.h"

#include "support/TestServer.h"

#include <QDate>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QRegularExpression>

#include <openssl/evp.h>

#ifdef Q_OS_WIN
#include <windows.h>

#include <aclapi.h>
#include <sddl.h>
#else
#include <csignal>
#endif

using namespace Qt::StringLiterals;

namespace {
constexpr int kToolTimeoutMs = 240000;
}

ToolSandbox::ToolSandbox(const QByteArray &extraConfig)
{
    QDir().mkpath(installation());
    QDir().mkpath(dataDirectory() + u"/logs"_s);
    QDir().mkpath(workDirectory());
    writeConfig(extraConfig);
}

QString ToolSandbox::configPath() const
{
    return QDir(workDirectory()).filePath(u"HKEY_LOCAL_MACHINE\\Software\\Tarvex\\Bravik"_s);
}

QString ToolSandbox::runLogPath() const
{
    return dataDirectory() + u"/logs/data_normalizer-%1.log"_s.arg(QDate::currentDate().toString(u"yyyyMMdd"_s));
}

QString ToolSandbox::runLog() const
{
    static const QRegularExpression stamp(u"\\d{4}\\.\\d{2}\\.\\d{2} \\d{2}:\\d{2}:\\d{2}\\.\\d{3}"_s);
    static const QRegularExpression serverError(
        u"ERROR: {1,2}\\S.*?(?=\\n\\[|\\n?\\z)"_s, QRegularExpression::DotMatchesEverythingOption);
    return QString::fromUtf8(read(runLogPath())).replace(stamp, u"<ts>"_s).replace(serverError, u"<server error>"_s);
}

void ToolSandbox::writeConfig(const QByteArray &extraConfig, const QByteArray &internal) const
{
    write(configPath(),
        "InstallationFolder=" + installation().toUtf8() + "\n[global]\nrestaddress=127.0.0.1\nrestport=8008\n"
            + extraConfig + "\n[internal]\ndata_directory=" + dataDirectory().toUtf8() + "\n" + internal);
}

bool ToolSandbox::provision(int port, const QString &dbName, const QString &type, const QStringList &more) const
{
    const QStringList assignments
        = {u"set"_s, u"host=127.0.0.1"_s, u"port=%1"_s.arg(port), u"user="_s + QLatin1String(TestServer::kUser),
            u"password="_s + QLatin1String(TestServer::kPassword), u"type="_s + type, u"dbname="_s + dbName};
    return runDbInfo(assignments + more).exitCode == 0;
}

ToolSandbox::Result ToolSandbox::runTool(const QStringList &arguments) const
{
    return run(QStringLiteral(ZENTRIX_TOOL_PATH), arguments, workDirectory());
}

ToolSandbox::Result ToolSandbox::runFresh(const QStringList &arguments) const
{
    QFile::remove(runLogPath());
    return runTool(arguments);
}

ToolSandbox::Result ToolSandbox::runDbInfo(const QStringList &arguments) const
{
    return run(QStringLiteral(ZENTRIX_DBINFO_PATH), arguments, workDirectory());
}

void ToolSandbox::startTool(QProcess &process, const QStringList &arguments) const
{
    process.setWorkingDirectory(workDirectory());
#ifdef Q_OS_WIN
    process.setCreateProcessArgumentsModifier(
        [](QProcess::CreateProcessArguments *arguments) { arguments->flags |= CREATE_NEW_CONSOLE; });
#endif
    process.start(QStringLiteral(ZENTRIX_TOOL_PATH), arguments);
}

QString ToolSandbox::interrupt(const QProcess &process)
{
#ifdef Q_OS_WIN
    // A console event reaches every program of a console: join the tool's, deaf to it here.
    FreeConsole();
    AttachConsole(static_cast<DWORD>(process.processId()));
    SetConsoleCtrlHandler(nullptr, TRUE);
    GenerateConsoleCtrlEvent(CTRL_C_EVENT, 0);
    FreeConsole();
    return u"Ctrl-C"_s;
#else
    ::kill(static_cast<pid_t>(process.processId()), SIGINT);
    return u"SIGINT"_s;
#endif
}

ToolSandbox::Result ToolSandbox::run(const QString &program, const QStringList &arguments, const QString &workDirectory)
{
    QProcess process;
    process.setWorkingDirectory(workDirectory);
    process.start(program, arguments);
    Result result;
    result.crashed = !process.waitForFinished(kToolTimeoutMs) || process.exitStatus() == QProcess::CrashExit;
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
    }
    result.exitCode = process.exitCode();
#ifdef Q_OS_WIN
    // abort() ends a Windows process with status 3 rather than by a signal.
    result.crashed = result.crashed || result.exitCode == 3;
#endif
    // A Windows console program ends its lines with CR LF; the lines are the same.
    result.out = process.readAllStandardOutput().replace("\r\n", "\n");
    result.err = process.readAllStandardError().replace("\r\n", "\n");
    return result;
}

QByteArray ToolSandbox::read(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

void ToolSandbox::write(const QString &path, const QByteArray &bytes)
{
    // On Windows the configuration file's name is a path of nested folders.
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        file.write(bytes);
}

#ifdef Q_OS_WIN
namespace {
// The file's owner and DACL in SDDL, read here with Windows' own calls.
QString securityText(const QString &path)
{
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    LPWSTR text = nullptr;
    const DWORD parts = OWNER_SECURITY_INFORMATION | DACL_SECURITY_INFORMATION;
    if (GetNamedSecurityInfoW(reinterpret_cast<const wchar_t *>(path.utf16()), SE_FILE_OBJECT, parts, nullptr, nullptr,
            nullptr, nullptr, &descriptor)
        != ERROR_SUCCESS)
        return QString();
    ConvertSecurityDescriptorToStringSecurityDescriptorW(descriptor, SDDL_REVISION_1, parts, &text, nullptr);
    const QString result = QString::fromWCharArray(text);
    LocalFree(text);
    LocalFree(descriptor);
    return result;
}
} // namespace

bool ToolSandbox::ownerOnly(const QString &path)
{
    const QString text = securityText(path);
    return !text.isEmpty() && !text.contains(QRegularExpression(u"\\(A;[^)]*;(WD|AU|BU)\\)"_s));
}

void ToolSandbox::exposeToEveryone(const QString &path)
{
    const QString owner = securityText(path).section(u"D:"_s, 0, 0);
    const QString text = owner + u"D:(A;;FA;;;%1)(A;;FR;;;WD)"_s.arg(owner.mid(2));
    PSECURITY_DESCRIPTOR descriptor = nullptr;
    ConvertStringSecurityDescriptorToSecurityDescriptorW(
        reinterpret_cast<const wchar_t *>(text.utf16()), SDDL_REVISION_1, &descriptor, nullptr);
    SetFileSecurityW(reinterpret_cast<const wchar_t *>(path.utf16()), DACL_SECURITY_INFORMATION, descriptor);
    LocalFree(descriptor);
}
#else
bool ToolSandbox::ownerOnly(const QString &path)
{
    return (QFile::permissions(path) & 0x0077) == 0;
}

void ToolSandbox::exposeToEveryone(const QString &path)
{
    QFile::setPermissions(path, QFile::permissions(path) | QFileDevice::ReadGroup | QFileDevice::ReadOther);
}
#endif

namespace {
// libcrypto's own cipher, where the openssl program cannot be run (the Windows test programs
// under Wine).
QByteArray evpCipher(const QByteArray &key, const QByteArray &input, bool decrypt)
{
    EVP_CIPHER_CTX *context = EVP_CIPHER_CTX_new();
    QByteArray output(input.size() + 8, '\0');
    int written = 0;
    int last = 0;
    const auto *bytes = reinterpret_cast<const unsigned char *>(key.constData());
    EVP_CipherInit_ex(context, EVP_des_ede3_cfb8(), nullptr, bytes, bytes, decrypt ? 0 : 1);
    EVP_CipherUpdate(context, reinterpret_cast<unsigned char *>(output.data()), &written,
        reinterpret_cast<const unsigned char *>(input.constData()), static_cast<int>(input.size()));
    EVP_CipherFinal_ex(context, reinterpret_cast<unsigned char *>(output.data()) + written, &last);
    EVP_CIPHER_CTX_free(context);
    return output.left(written + last);
}
} // namespace

QByteArray ToolSandbox::openssl(const QString &keyFile, const QByteArray &input, bool decrypt)
{
    const QByteArray key = read(keyFile).left(24);
    QProcess process;
    process.start(u"openssl"_s,
        QStringList{u"enc"_s, u"-des-ede3-cfb8"_s, u"-K"_s, QString::fromLatin1(key.toHex()), u"-iv"_s,
            QString::fromLatin1(key.left(8).toHex())}
            + (decrypt ? QStringList{u"-d"_s} : QStringList()));
    if (!process.waitForStarted())
        return key.size() == 24 ? evpCipher(key, input, decrypt) : QByteArray();
    process.write(input);
    process.closeWriteChannel();
    process.waitForFinished();
    return process.readAllStandardOutput();
}

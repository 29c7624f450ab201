#include "core/server/control/WindowsServiceControl.h"
#include "core/server/path/WindowsPathName.h"
#include "support/LiveProcess.h"
#include "support/QtPrinters.h"
#include "support/RecordingProcessRunner.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QProcess>
#include <QTemporaryDir>

#ifdef Q_OS_WIN
#include <windows.h>
#endif

using namespace Qt::StringLiterals;

namespace {

const QString kService = QLatin1String(core::ServiceControl::kServiceName);

// A data folder beside an installation's pg_ctl (which only the recorder "runs") and its server
// program, the backend driving them with its commands recorded.
struct Installation {
    explicit Installation(core::WindowsServiceControl::RegistrationReader registration = core::ServiceRegistration::of)
    {
        QDir(root.path()).mkpath(u"bin"_s);
        QDir(root.path()).mkpath(u"pg_data/log"_s);
        context.pgCtlPath = root.filePath(u"bin/pg_ctl.exe"_s);
        context.dataDirectory = root.filePath(u"pg_data"_s);
        context.port = 5433;
        relay.warning = [this](const QString &line) { warnings << line; };
        context.relay = &relay;
        control
            = std::make_unique<core::WindowsServiceControl>(context, std::make_unique<RecordingProcessRunner>(script),
                core::WindowsServiceControl::Limits{1000, 1000}, std::move(registration));
        script->exitCodes.insert(u"pg_ctl.exe status"_s, 3);
        script->exitCodes.insert(u"sc query"_s, 1060);
    }

    QString lockFile() const { return context.dataDirectory + u"/postmaster.pid"_s; }
    QString serverProgram() const { return root.filePath(u"bin/postgres.exe"_s); }

    QTemporaryDir root;
    // What the run log would be told.
    QStringList warnings;
    core::PostgresLogRelay relay;
    core::ServiceContext context;
    const std::shared_ptr<RecordingProcessRunner::Script> script = std::make_shared<RecordingProcessRunner::Script>();
    std::unique_ptr<core::WindowsServiceControl> control;
};

// "pg_ctl register" as the service manager keeps it.
QString registeredCommandLine(const QString &dataFolder)
{
    return uR"("C:\zentrix\postgres\bin\pg_ctl.exe" runservice -N "zentrix-postgresql" -D "%1" -w -o "-p 5433")"_s.arg(
        dataFolder);
}

} // namespace

TEST(WindowsServiceControlTest, CommandLinesOfRegisterAndStart)
{
    Installation installation;
    const QString pgCtl = installation.context.pgCtlPath;
    const QString pgData = installation.context.dataDirectory;
    const auto &script = installation.script;
    installation.control->registerService();
    // A server that stops again at once is known from the status after "net start", with the
    // complaint its own log holds, even while the service still says it starts.
    const QString serverLog = pgData + u"/log/postgresql.log"_s;
    ToolSandbox::write(serverLog, "LOG:  a FATAL: of an earlier start\n");
    script->outputs.insert(u"sc query"_s, "        STATE              : 2  START_PENDING \r\n");
    script->hooks.insert(u"net start"_s, [&serverLog] {
        QFile log(serverLog);
        log.open(QIODevice::Append);
        log.write("LOG:  could not bind IPv4 address \"127.0.0.1\": Address already in use\nFATAL:  could not create "
                  "any TCP/IP sockets\n");
    });
    installation.control->start();
    EXPECT_EQ(installation.control->startFailure(),
        u"LOG: could not bind IPv4 address \"127.0.0.1\": Address already in use; FATAL: "
        "could not create any TCP/IP sockets"_s);
    EXPECT_EQ(installation.control->status(), 3);
    EXPECT_FALSE(installation.control->exists());
    EXPECT_EQ(script->lines,
        QStringList({pgCtl + "|register|-N|zentrix-postgresql|-D|" + pgData + "|--options=-p5433 @30000",
            u"sc|failure|zentrix-postgresql|reset=86400|actions=restart/60000/restart/60000// @-1"_s,
            u"sc|description|zentrix-postgresql|Sentrova Core PostgreSQL Service @-1"_s,
            u"sc|config|zentrix-postgresql|displayname=|Tarvex Sentrova Core PostgreSQL @-1"_s,
            u"net|start|zentrix-postgresql @-1"_s, pgCtl + "|status|-D|" + pgData + " @30000",
            pgCtl + "|status|-D|" + pgData + " @30000", u"sc|query|zentrix-postgresql @-1"_s}));
    // A service still starting once "net start" has returned (Wine's returns at once) is waited
    // for; one that never starts, only for the limit, and its failure names the server's log.
    script->hooks.clear();
    script->lines.clear();
    script->hooks.insert(u"sc query"_s, [&script] { script->exitCodes.insert(u"pg_ctl.exe status"_s, 0); });
    installation.control->start();
    EXPECT_EQ(installation.control->startFailure(), QString()) << "a server that came up";
    EXPECT_EQ(script->lines.size(), 4) << "net start, status, sc query, status";
    script->hooks.clear();
    script->exitCodes.insert(u"pg_ctl.exe status"_s, 3);
    installation.control->start();
    EXPECT_EQ(installation.control->startFailure(),
        u"no server runs in %1 after \"net start zentrix-postgresql\", and its log folder %2 says nothing of this "
        "start; start it once by hand to see why: \"%3\" start -D \"%1\""_s.arg(QDir::toNativeSeparators(pgData),
            QDir::toNativeSeparators(pgData + u"/log"_s), QDir::toNativeSeparators(pgCtl)));
}

// Stopping kills only the installation's own server as its lock file describes it, and only
// once it has outlasted the wait for its stop; any other lock file is set aside, its process
// left alone. The service is always unregistered.
TEST(WindowsServiceControlTest, StopKillsOnlyTheInstallationsOwnServer)
{
    Installation installation;
    ASSERT_TRUE(QFile::copy(QStringLiteral(ZENTRIX_IDLE_PATH), installation.serverProgram()));
    LiveProcess server(installation.serverProgram());
    LiveProcess stranger;
    const qint64 now = QDateTime::currentSecsSinceEpoch();
    const auto lockOf = [&installation](const QProcess &process, qint64 startTime) {
        return QByteArray::number(process.processId()) + "\n" + installation.context.dataDirectory.toUtf8() + "\n"
            + QByteArray::number(startTime) + "\n5433\n";
    };
    const QString stop = u"net|stop|zentrix-postgresql @-1"_s;
    const QString status
        = installation.context.pgCtlPath + u"|status|-D|"_s + installation.context.dataDirectory + u" @30000"_s;
    const QStringList unregister = {stop, installation.context.pgCtlPath + u"|unregister|-N|zentrix-postgresql @-1"_s};
    const struct {
        const char *name;
        QByteArray lockFile;
        bool stopsInTime;
        bool setAside;
        bool killed;
    } cases[] = {
        {"no lock file", QByteArray(), true, false, false},
        {"not a process id", "not-a-pid\n", true, true, false},
        {"a process that is gone", "2147483000\n", true, true, false},
        {"a live stranger", lockOf(stranger, now), true, true, false},
        {"the server's program, started after the lock file (a reused id)", lockOf(server, now - 3600), true, true,
            false},
        {"the server, stopping within the wait", lockOf(server, now), true, false, false},
        {"the server, outlasting the wait", lockOf(server, now), false, false, true},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        installation.script->lines.clear();
        installation.warnings.clear();
        QFile::remove(installation.lockFile());
        QFile::remove(installation.lockFile() + u".stale"_s);
        if (!c.lockFile.isNull())
            ToolSandbox::write(installation.lockFile(), c.lockFile);
        // A server that stops removes its lock file.
        installation.script->exitCodes.insert(u"pg_ctl.exe status"_s, c.stopsInTime ? 3 : 0);
        installation.script->hooks.insert(u"pg_ctl.exe status"_s, [&installation, &c] {
            if (c.stopsInTime)
                QFile::remove(installation.lockFile());
        });
        installation.control->stop();
        const QStringList lines = installation.script->lines;
        EXPECT_EQ(lines.first(), stop);
        EXPECT_EQ(lines.mid(lines.size() - 2), unregister);
        const QStringList between = lines.mid(1, lines.size() - 3);
        EXPECT_EQ(between.filter(u"taskkill"_s),
            c.killed ? QStringList{u"taskkill|/F|/PID|%1 @30000"_s.arg(server.processId())} : QStringList());
        EXPECT_EQ(between.contains(status), QByteArray(c.name).startsWith("the server,"))
            << "the server's own state is waited for, and only its";
        EXPECT_EQ(QFile::exists(installation.lockFile() + u".stale"_s), c.setAside);
        EXPECT_EQ(installation.warnings.filter(u"Stale lock file set aside as postmaster.pid.stale"_s).size(),
            c.setAside ? 1 : 0)
            << "said in the run log";
        EXPECT_EQ(stranger.state(), QProcess::Running);
    }
}

// A service of the same name registered for another data folder is another installation's: no
// command reaches it, and why goes to the operator. This installation's own registration, in
// any spelling of its folder, is driven as before.
TEST(WindowsServiceControlTest, AServiceOfAnotherDataFolderIsLeftAsItIs)
{
    const struct {
        const char *name;
        core::ServiceRegistration::State state;
        QString commandLine;
        QString refusal;
    } cases[] = {
        {"another data folder", core::ServiceRegistration::State::Registered,
            registeredCommandLine(uR"(C:\Other Data\pg_data)"_s),
            u"The Windows service zentrix-postgresql belongs to another installation: it runs the database server "
            R"(of C:\Other Data\pg_data, not of this installation's %1. The run left that service as it is. If )"
            "nothing uses that installation any more, remove its service (sc stop zentrix-postgresql, then sc "
            "delete zentrix-postgresql) and run again; while it is in use, this installation's database server "
            "cannot run as that service on this machine."_s},
        {"no data folder", core::ServiceRegistration::State::Registered, u"svchost.exe -k x"_s,
            u"another installation: it runs svchost.exe -k x, which names no data folder"_s},
        {"unreadable", core::ServiceRegistration::State::Unreadable, QString(),
            u"exists, but its registration cannot be read (Access is denied)"_s},
        {"this data folder, spelt otherwise", core::ServiceRegistration::State::Registered, QString(), QString()},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        QString commandLine = c.commandLine;
        Installation installation([&commandLine, &c](const QString &name) {
            EXPECT_EQ(name, kService);
            core::ServiceRegistration registration;
            registration.state = c.state;
            registration.commandLine = commandLine;
            registration.error = u"Access is denied"_s;
            return registration;
        });
        if (c.refusal.isEmpty())
            commandLine = registeredCommandLine(QDir::toNativeSeparators(installation.context.dataDirectory).toUpper());
        ToolSandbox::write(installation.lockFile(), "2147483000\n");
        const QString refusal = installation.control->serviceOfAnother();
        EXPECT_TRUE(has(refusal,
            QString(c.refusal).replace(u"%1"_s, QDir::toNativeSeparators(installation.context.dataDirectory))));
        EXPECT_EQ(refusal.isEmpty(), c.refusal.isEmpty());
        installation.control->registerService();
        installation.control->start();
        installation.control->stop();
        installation.control->unregisterService();
        if (c.refusal.isEmpty()) {
            EXPECT_EQ(installation.script->lines.filter(kService).size(), 11);
            continue;
        }
        EXPECT_EQ(installation.script->lines, QStringList());
        EXPECT_EQ(installation.control->startFailure(), installation.control->serviceOfAnother());
        EXPECT_TRUE(QFile::exists(installation.lockFile())) << "nothing of the server is touched either";
    }
}

// pg_ctl believes any live process that the lock file names: a lock of anything but this
// installation's server is set aside before it is asked, so the run never waits for a server of
// another installation on this installation's port.
TEST(WindowsServiceControlTest, TheStatusSetsAsideALockOfAnotherInstallationsServer)
{
    Installation installation;
    const QTemporaryDir other;
    QDir(other.path()).mkpath(u"bin"_s);
    ASSERT_TRUE(QFile::copy(QStringLiteral(ZENTRIX_IDLE_PATH), installation.serverProgram()));
    ASSERT_TRUE(QFile::copy(QStringLiteral(ZENTRIX_IDLE_PATH), other.filePath(u"bin/postgres.exe"_s)));
    LiveProcess ownServer(installation.serverProgram());
    LiveProcess otherServer(other.filePath(u"bin/postgres.exe"_s));
    LiveProcess stranger;
    const struct {
        const char *name;
        const QProcess &process;
        bool setAside;
    } cases[] = {
        {"another installation's postgres.exe", otherServer, true},
        {"another program", stranger, true},
        {"this installation's server", ownServer, false},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        QFile::remove(installation.lockFile() + u".stale"_s);
        ToolSandbox::write(installation.lockFile(),
            QByteArray::number(c.process.processId()) + "\nC:/other/pg_data\n"
                + QByteArray::number(QDateTime::currentSecsSinceEpoch()) + "\n5432\n");
        bool lockSeenByPgCtl = false;
        installation.script->hooks.insert(u"pg_ctl.exe status"_s,
            [&installation, &lockSeenByPgCtl] { lockSeenByPgCtl = QFile::exists(installation.lockFile()); });
        installation.control->status();
        EXPECT_EQ(lockSeenByPgCtl, !c.setAside);
        EXPECT_EQ(QFile::exists(installation.lockFile() + u".stale"_s), c.setAside);
        EXPECT_EQ(otherServer.state(), QProcess::Running);
        EXPECT_EQ(installation.script->lines.filter(u"taskkill"_s), QStringList()) << "nothing is signalled";
    }
}

// Windows compares folders by name whatever their spelling, as the service manager and the
// lock file may give them.
TEST(WindowsServiceControlTest, FoldersAreComparedAsWindowsComparesThem)
{
    const struct {
        const char *name;
        const char16_t *one;
        const char16_t *other;
        bool same;
    } cases[] = {
        {"letter case", u"C:\\Tarvex\\Daten\\pg_data", u"c:\\TARVEX\\daten\\PG_DATA", true},
        {"separators", u"C:\\Tarvex\\pg_data", u"C:/Tarvex/pg_data", true},
        {"a trailing separator", u"C:\\Tarvex\\pg_data\\", u"C:\\Tarvex\\pg_data", true},
        {"the long-path prefix", u"\\\\?\\C:\\Tarvex\\pg_data", u"C:\\Tarvex\\pg_data", true},
        {"a long UNC path", u"\\\\?\\UNC\\server\\share\\pg_data", u"\\\\server\\share\\pg_data\\", true},
        {"a drive's root", u"C:\\", u"c:/", true},
        {"another folder", u"C:\\Tarvex\\pg_data", u"C:\\Tarvex\\pg_data2", false},
        {"a parent folder", u"C:\\Tarvex\\pg_data", u"C:\\Tarvex", false},
    };
    for (const auto &c : cases)
        EXPECT_EQ(core::WindowsPathName::same(QString::fromUtf16(c.one), QString::fromUtf16(c.other)), c.same)
            << c.name;
}

#ifdef Q_OS_WIN
// The service manager may hold the data folder under its 8.3 short name, as an installer that
// took a short path registered it.
TEST(WindowsServiceControlTest, AServiceRegisteredUnderTheShortNameIsThisInstallations)
{
    const QTemporaryDir root;
    const QString dataFolder = root.filePath(u"Datenbank Größe langer Name/pg_data"_s);
    ASSERT_TRUE(QDir().mkpath(dataFolder));
    const QString native = QDir::toNativeSeparators(dataFolder);
    wchar_t shortName[MAX_PATH] = {};
    const DWORD size = GetShortPathNameW(reinterpret_cast<const wchar_t *>(native.utf16()), shortName, MAX_PATH);
    ASSERT_GT(size, 0u);
    const QString registered = QString::fromWCharArray(shortName, static_cast<int>(size)) + u"\\"_s;
    ASSERT_FALSE(registered.contains(u"Größe"_s)) << "no short name given";
    Installation installation;
    installation.context.dataDirectory = dataFolder;
    core::WindowsServiceControl control(installation.context,
        std::make_unique<RecordingProcessRunner>(installation.script), core::WindowsServiceControl::Limits{1000, 1000},
        [&registered](const QString &) {
            core::ServiceRegistration registration;
            registration.state = core::ServiceRegistration::State::Registered;
            registration.commandLine = registeredCommandLine(registered);
            return registration;
        });
    EXPECT_EQ(control.serviceOfAnother(), QString()) << registered.toStdString();
}
#endif

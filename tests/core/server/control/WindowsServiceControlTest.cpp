#include "core/server/control/WindowsServiceControl.h"
#include "support/QtPrinters.h"
#include "support/RecordingProcessRunner.h"
#include "support/ToolSandbox.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

using namespace Qt::StringLiterals;

TEST(WindowsServiceControlTest, CommandLinesOfEveryOperation)
{
    const QTemporaryDir dataDirectory;
    const QString pgCtl = u"C:/zentrix/postgres/bin/pg_ctl.exe"_s;
    const auto script = std::make_shared<RecordingProcessRunner::Script>();
    core::ServiceContext context;
    context.pgCtlPath = pgCtl;
    context.dataDirectory = dataDirectory.path();
    context.port = 5433;
    core::WindowsServiceControl control(context, std::make_unique<RecordingProcessRunner>(script));
    script->exitCodes.insert(u"pg_ctl.exe status"_s, 3);
    script->exitCodes.insert(u"sc query"_s, 1060);
    control.registerService();
    // A server that stops again at once is known from the status after "net start", with the
    // complaint its own log holds.
    QDir(dataDirectory.path()).mkpath(u"log"_s);
    const QString serverLog = dataDirectory.filePath(u"log/postgresql.log"_s);
    ToolSandbox::write(serverLog, "LOG:  a FATAL: of an earlier start\n");
    script->hooks.insert(u"net start"_s, [&serverLog] {
        QFile log(serverLog);
        log.open(QIODevice::Append);
        log.write("LOG:  could not bind IPv4 address \"127.0.0.1\": Address already in use\nFATAL:  could not create "
                  "any TCP/IP sockets\n");
    });
    control.start();
    EXPECT_EQ(control.startFailure(),
        u"LOG: could not bind IPv4 address \"127.0.0.1\": Address already in use; FATAL: "
        "could not create any TCP/IP sockets"_s);
    EXPECT_EQ(control.status(), 3);
    EXPECT_FALSE(control.exists());
    EXPECT_EQ(script->lines,
        QStringList({pgCtl + "|register|-N|zentrix-postgresql|-D|" + dataDirectory.path() + "|--options=-p5433 @30000",
            u"sc|failure|zentrix-postgresql|reset=86400|actions=restart/60000/restart/60000// @-1"_s,
            u"sc|description|zentrix-postgresql|Sentrova Core PostgreSQL Service @-1"_s,
            u"sc|config|zentrix-postgresql|displayname=|Tarvex Sentrova Core PostgreSQL @-1"_s,
            u"net|start|zentrix-postgresql @-1"_s, pgCtl + "|status|-D|" + dataDirectory.path() + " @30000",
            u"sc|query|zentrix-postgresql @-1"_s, pgCtl + "|status|-D|" + dataDirectory.path() + " @30000",
            u"sc|query|zentrix-postgresql @-1"_s}));
    // A service still starting once "net start" has returned (Wine's returns at once) is waited for.
    script->hooks.clear();
    script->lines.clear();
    script->outputs.insert(u"sc query"_s, "        STATE              : 2  START_PENDING \r\n");
    script->hooks.insert(u"sc query"_s, [&script] { script->exitCodes.insert(u"pg_ctl.exe status"_s, 0); });
    control.start();
    EXPECT_EQ(control.startFailure(), QString()) << "a server that came up";
    EXPECT_EQ(script->lines.size(), 4) << "net start, status, sc query, status";

    // Stopping kills only a usable PID from the lock file, and always unregisters.
    const QStringList unregister
        = {u"net|stop|zentrix-postgresql @-1"_s, pgCtl + u"|unregister|-N|zentrix-postgresql @-1"_s};
    const struct {
        QByteArray lockFile;
        QStringList kill;
    } cases[] = {
        {"4242\n/data\n1700000000\n5433\n", {u"taskkill|/F|/PID|4242 @30000"_s}},
        {QByteArray(), {}},
        {"not-a-pid\n", {}},
        {"0\n", {}},
    };
    for (const auto &c : cases) {
        script->lines.clear();
        QFile::remove(dataDirectory.filePath(u"postmaster.pid"_s));
        if (!c.lockFile.isNull())
            ToolSandbox::write(dataDirectory.filePath(u"postmaster.pid"_s), c.lockFile);
        control.stop();
        EXPECT_EQ(script->lines, QStringList({u"net|stop|zentrix-postgresql @-1"_s}) + c.kill + unregister)
            << c.lockFile.constData();
    }
}

#include "core/server/control/WindowsServiceControl.h"
#include "support/CapturingLogOutput.h"
#include "support/QtPrinters.h"
#include "support/RecordingProcessRunner.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QTemporaryDir>

using core::WindowsServiceControl;

class WindowsServiceControlTest : public ::testing::Test
{
protected:
    WindowsServiceControlTest()
    {
        m_relay.useLogger = true;
        core::ServiceContext context;
        context.pgCtlPath = QStringLiteral("C:/zentrix/postgres/bin/pg_ctl.exe");
        context.dataDirectory = m_dir.path();
        context.port = 5433;
        context.relay = &m_relay;
        m_control
            = std::make_unique<WindowsServiceControl>(context, std::make_unique<RecordingProcessRunner>(m_script));
    }

    void writePidFile(const QByteArray &content) const
    {
        QFile file(m_dir.filePath(QStringLiteral("postmaster.pid")));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
    }

    QStringList unregisterLines() const
    {
        return {QStringLiteral("net|stop|zentrix-postgresql @-1"),
            QStringLiteral("C:/zentrix/postgres/bin/pg_ctl.exe|unregister|-N|zentrix-postgresql @-1")};
    }

    QTemporaryDir m_dir;
    ScopedLogCapture m_capture;
    core::PostgresLogRelay m_relay;
    std::shared_ptr<RecordingProcessRunner::Script> m_script = std::make_shared<RecordingProcessRunner::Script>();
    std::unique_ptr<WindowsServiceControl> m_control;
};

TEST_F(WindowsServiceControlTest, RegisterStartAndQueryCommandLines)
{
    m_control->registerService();
    m_control->start();
    EXPECT_EQ(m_script->lines,
        QStringList({
            QStringLiteral("C:/zentrix/postgres/bin/pg_ctl.exe|register|-N|zentrix-postgresql|-D|%1|--options=-p5433 "
                           "@30000")
                .arg(m_dir.path()),
            QStringLiteral("sc|failure|zentrix-postgresql|reset=86400|actions=restart/60000/restart/60000// @-1"),
            QStringLiteral("sc|description|zentrix-postgresql|Sentrova Core PostgreSQL Service @-1"),
            QStringLiteral("sc|config|zentrix-postgresql|displayname=|Tarvex Sentrova Core PostgreSQL @-1"),
            QStringLiteral("net|start|zentrix-postgresql @-1"),
        }));
    EXPECT_EQ(m_control->dynamicSharedMemoryType(), QStringLiteral("windows"));
}

TEST_F(WindowsServiceControlTest, StatusAndExistence)
{
    m_script->exitCodes.insert(QStringLiteral("pg_ctl.exe status"), 3);
    m_script->outputs.insert(QStringLiteral("pg_ctl.exe status"), "pg_ctl: no server running");
    m_script->exitCodes.insert(QStringLiteral("sc query"), 1060);
    EXPECT_EQ(m_control->status(), 3);
    EXPECT_FALSE(m_control->exists());
    m_script->exitCodes.insert(QStringLiteral("sc query"), 0);
    EXPECT_TRUE(m_control->exists());
    EXPECT_EQ(m_script->lines,
        QStringList({QStringLiteral("C:/zentrix/postgres/bin/pg_ctl.exe|status|-D|%1 @30000").arg(m_dir.path()),
            QStringLiteral("sc|query|zentrix-postgresql @-1"), QStringLiteral("sc|query|zentrix-postgresql @-1")}));
    EXPECT_EQ(m_capture.output->messages(),
        QStringList({QStringLiteral("Postgres service status: pg_ctl: no server running")}));
}

TEST_F(WindowsServiceControlTest, StopKillsThePidFromTheLockFileAndUnregisters)
{
    writePidFile("4242\n/data\n1700000000\n5433\n");
    m_script->exitCodes.insert(QStringLiteral("pg_ctl.exe unregister"), 0);
    m_control->stop();
    EXPECT_EQ(m_script->lines,
        QStringList({QStringLiteral("net|stop|zentrix-postgresql @-1"), QStringLiteral("taskkill|/F|/PID|4242 @30000")})
            + unregisterLines());
    EXPECT_EQ(m_capture.output->messages(),
        QStringList({QStringLiteral("Forcibly kill postgres service process. PID: 4242."),
            QStringLiteral("Unregister postgres service. Exit code: 0")}));
}

TEST_F(WindowsServiceControlTest, StopWithoutAUsablePidKillsNothingButStillUnregisters)
{
    const QList<QByteArray> contents = {QByteArray(), "not-a-pid\n", "0\n"};
    for (const QByteArray &content : contents) {
        m_script->lines.clear();
        if (!content.isNull())
            writePidFile(content);
        m_control->stop();
        EXPECT_EQ(m_script->lines, QStringList({QStringLiteral("net|stop|zentrix-postgresql @-1")}) + unregisterLines())
            << content.constData();
    }
}

#pragma once

#include <QProcess>
#include <QString>

// A live process that the tests name in lock files: a stranger or, copied where a server
// program belongs, that program.
class LiveProcess : public QProcess
{
public:
    explicit LiveProcess(const QString &program = QStringLiteral(ZENTRIX_IDLE_PATH))
    {
        start(program, QStringList());
        waitForStarted();
    }
    ~LiveProcess() override
    {
        kill();
        waitForFinished();
    }
};

#pragma once

#include <QProcess>

namespace core {

// The process object cluster creation runs through.
class PostgresProcess : public QProcess
{
    Q_OBJECT

public:
    using QProcess::QProcess;
    ~PostgresProcess() override;
};

} // namespace core

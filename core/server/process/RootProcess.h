#pragma once

#include <QProcess>

namespace core {

class RootProcess : public QProcess
{
    Q_OBJECT

public:
    using QProcess::QProcess;
    ~RootProcess() override;
};

} // namespace core

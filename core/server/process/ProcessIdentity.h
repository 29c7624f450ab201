#pragma once

#include <QDateTime>
#include <QString>

namespace core {

// What the system says of a running process: the program it runs and when it was created.
// Process ids are reused (at once on Windows after a reboot), so a number alone names nobody.
class ProcessIdentity
{
public:
    enum class State {
        Gone,
        Alive,
        // It exists, but this account may not look at it.
        Hidden,
    };

    static ProcessIdentity of(qint64 pid);

    State state = State::Gone;
    // The program's absolute path, with the platform's separators.
    QString image;
    QDateTime created;
};

} // namespace core

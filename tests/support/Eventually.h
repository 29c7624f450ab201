#pragma once

#include <QDeadlineTimer>
#include <QThread>

constexpr int kEventuallyLimitMs = 60000;

// Polls a condition until it holds (true) or kEventuallyLimitMs have passed (false).
template <typename Condition> bool eventually(Condition condition)
{
    constexpr int kPollMs = 20;
    for (QDeadlineTimer deadline(kEventuallyLimitMs); !condition(); QThread::msleep(kPollMs)) {
        if (deadline.hasExpired())
            return false;
    }
    return true;
}

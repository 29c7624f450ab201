#include "app/health/PauseGate.h"

#include "app/health/ServerHealth.h"
#include "app/output/Progress.h"
#include "app/output/Reporter.h"

#include <QDeadlineTimer>
#include <QThread>

#include <algorithm>

namespace {
const QString kClock = QStringLiteral("HH:mm:ss");
} // namespace

PauseGate::PauseGate(ServerHealth &health, const HealthLimits &limits, const Reporter &reporter, Progress &progress)
    : m_health(health)
    , m_limits(limits)
    , m_reporter(reporter)
    , m_progress(progress)
{ }

void PauseGate::look(QSqlQuery &query)
{
    bool working = false;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        const qint64 now = QDateTime::currentMSecsSinceEpoch();
        if (now - m_lastRead < kReadIntervalMs)
            return;
        m_lastRead = now;
        working = !m_pausedSinceRead && !m_paused;
        m_pausedSinceRead = m_paused;
    }
    const QString cause = m_health.check(query, working);
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!cause.isEmpty() && !m_paused)
        begin(cause);
    else if (cause.isEmpty() && m_paused)
        end();
    else if (m_paused && cause != m_cause)
        m_progress.setPause(cause);
}

void PauseGate::begin(const QString &cause)
{
    m_paused = true;
    m_pausedSinceRead = true;
    m_cause = cause;
    m_pausedSince = QDateTime::currentDateTime();
    ++m_pauses;
    m_progress.setPause(cause);
}

void PauseGate::end()
{
    const QDateTime now = QDateTime::currentDateTime();
    const qint64 pausedMs = m_pausedSince.msecsTo(now);
    m_pausedMs += pausedMs;
    m_paused = false;
    m_progress.setPause(QString());
    m_reporter.logInfo(
        QStringLiteral("Paused %1, from %2 to %3: %4")
            .arg(Progress::duration(pausedMs), m_pausedSince.toString(kClock), now.toString(kClock), m_cause));
}

bool PauseGate::open() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return !m_paused;
}

QString PauseGate::overrun() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!m_paused || m_limits.maxPauseSeconds <= 0
        || m_pausedSince.secsTo(QDateTime::currentDateTime()) <= m_limits.maxPauseSeconds)
        return QString();
    return QStringLiteral("it paused longer than --max-pause allows (%1 s) because %2; what it committed stays, "
                          "and a --journal run resumes where it stopped")
        .arg(m_limits.maxPauseSeconds)
        .arg(m_cause);
}

qint64 PauseGate::restMs(qint64 elapsedMs, int pacePercent)
{
    return pacePercent >= HealthLimits::kFullPace ? 0
                                                  : elapsedMs * (HealthLimits::kFullPace - pacePercent) / pacePercent;
}

void PauseGate::rest(qint64 elapsedMs, const std::function<bool()> &stop) const
{
    const QDeadlineTimer deadline(restMs(elapsedMs, m_limits.pacePercent));
    while (!deadline.hasExpired() && !stop())
        QThread::msleep(std::min<qint64>(kWaitPollMs, deadline.remainingTime()));
}

void PauseGate::finish()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (m_paused)
        end();
    if (m_pauses == 0)
        return;
    const QString pauses = m_pauses == 1 ? QStringLiteral("1 pause") : QStringLiteral("%1 pauses").arg(m_pauses);
    m_reporter.info(QStringLiteral("Paused %1 in all (%2; the run log names each with its cause)")
                        .arg(Progress::duration(m_pausedMs), pauses));
}

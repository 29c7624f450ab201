#include "app/output/Progress.h"

#include "app/output/Console.h"
#include "app/output/RunLog.h"
#include "app/output/Terminal.h"
#include "app/output/VerboseLog.h"

#include <QThread>

#include <chrono>

Progress::Display Progress::displayFor(bool standardErrorIsTerminal, bool standardOutputIsTerminal)
{
    if (!standardErrorIsTerminal)
        return Display::None;
    return standardOutputIsTerminal ? Display::InPlace : Display::Lines;
}

Progress::Progress(RunLog &log, const VerboseLog &verbose, Display display, bool toLog)
    : m_log(log)
    , m_verbose(verbose)
    , m_display(display)
    , m_toLog(toLog || display != Display::None || verbose.enabled())
{
    m_clock.start();
    if (!active())
        return;
    m_thread.reset(QThread::create([this] { work(); }));
    m_thread->start();
}

Progress::~Progress()
{
    if (!m_thread)
        return;
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_finished = true;
    }
    m_wake.notify_all();
    m_thread->wait();
    if (m_display == Display::InPlace)
        Console::status(QString());
}

Progress::Step::Step(Progress &progress, const QString &step)
    : m_progress(progress)
    , m_step(step)
{
    m_progress.begin(m_step);
}

Progress::Step::~Step()
{
    m_progress.end(m_step);
}

void Progress::setTotal(qint64 units, const QString &whatOf)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_total = units;
    m_whatOf = whatOf;
}

void Progress::advance(qint64 units, qint64 rowsChanged)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_done += units;
    m_changed += rowsChanged;
}

void Progress::setStepCount(int steps, const QString &stepName)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_steps = steps;
    m_stepName = stepName;
}

void Progress::stepDone()
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    ++m_stepsDone;
}

void Progress::setWaiting(const QString &text)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_waiting = text;
}

void Progress::setPause(const QString &cause)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    if (!cause.isEmpty() && m_pause.isEmpty())
        m_pauseStart = m_clock.elapsed();
    if (cause.isEmpty() && !m_pause.isEmpty())
        m_pausedMs += m_clock.elapsed() - m_pauseStart;
    m_pause = cause;
}

// A step that begins is drawn at once, so that even a short one is seen.
void Progress::begin(const QString &step)
{
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_inFlight << step;
    }
    if (m_display == Display::InPlace)
        draw(QStringLiteral("Progress: ") + line());
}

void Progress::end(const QString &step)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_inFlight.removeOne(step);
}

QString Progress::line() const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const qint64 elapsed = m_clock.elapsed();
    const qint64 pausedNow = m_pause.isEmpty() ? 0 : elapsed - m_pauseStart;
    const qint64 working = elapsed - m_pausedMs - pausedNow;
    QStringList parts = {duration(elapsed)};
    if (m_total > 0) {
        const double share = double(m_done) / double(m_total);
        const QString left = m_done == 0
            ? QStringLiteral("estimating the time left")
            : QStringLiteral("about %1 left").arg(duration(qint64(working * (1 - share) / share)));
        parts << QStringLiteral("%1% of %2, rows changed: %3, %4")
                     .arg(int(share * 100))
                     .arg(m_whatOf)
                     .arg(m_changed)
                     .arg(left);
    } else if (m_steps > 0) {
        parts << QStringLiteral("%1 of %2 %3s done").arg(m_stepsDone).arg(m_steps).arg(m_stepName);
    }
    if (!m_inFlight.isEmpty())
        parts << m_inFlight.join(QStringLiteral(", "));
    if (!m_waiting.isEmpty())
        parts << m_waiting;
    if (!m_pause.isEmpty())
        parts << QStringLiteral("paused %1: %2").arg(duration(pausedNow), m_pause);
    return parts.join(QStringLiteral("; "));
}

void Progress::work()
{
    qint64 lastLog = 0;
    qint64 lastLine = 0;
    std::unique_lock<std::mutex> lock(m_mutex);
    while (!m_finished) {
        lock.unlock();
        const qint64 now = m_clock.elapsed();
        const bool logDue = now - lastLog >= kLogIntervalMs;
        if (logDue)
            lastLog = now;
        if (m_display == Display::Lines && now - lastLine >= kPipedIntervalMs) {
            lastLine = now;
            draw(QStringLiteral("Progress: ") + line());
        }
        show(logDue);
        lock.lock();
        m_wake.wait_for(lock, std::chrono::milliseconds(kRedrawMs), [this] { return m_finished; });
    }
}

// The first minute is not logged: a short run's log stays as it was.
void Progress::show(bool logDue)
{
    const QString text = QStringLiteral("Progress: ") + line();
    if (m_display == Display::InPlace)
        draw(text);
    if (!logDue || m_clock.elapsed() < kLogIntervalMs)
        return;
    if (m_verbose.enabled())
        m_verbose.line(text);
    else
        m_log.writeLine(RunLog::Info, text);
}

// Never as wide as the terminal: a line that fills it makes the cursor wrap, and the next
// redraw would add a row.
void Progress::draw(const QString &text) const
{
    const int columns = Terminal::columns();
    const QString fitting = columns > 1 ? text.left(columns - 1) : text;
    if (m_display == Display::InPlace)
        Console::status(fitting);
    else
        Console::err(fitting);
}

QString Progress::duration(qint64 ms)
{
    const qint64 seconds = ms / 1000;
    if (seconds >= 3600)
        return QStringLiteral("%1 h %2 min").arg(seconds / 3600).arg(seconds % 3600 / 60);
    if (seconds >= 60)
        return QStringLiteral("%1 min %2 s").arg(seconds / 60).arg(seconds % 60);
    return QStringLiteral("%1 s").arg(seconds);
}

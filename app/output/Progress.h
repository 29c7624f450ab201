#pragma once

#include <QElapsedTimer>
#include <QString>
#include <QStringList>

#include <condition_variable>
#include <memory>
#include <mutex>

class QThread;
class RunLog;
class VerboseLog;

// How far a long run has got, for an operator who would otherwise take it for hung: on a
// terminal, a status line redrawn in place; in the run log (and with --verbose on standard
// error), a line at most once a minute. Every line says the time so far, the measured share of
// the work or the steps done, and what is in flight. Silent when neither the terminal nor the
// log is to hear of it.
class Progress
{
public:
    static constexpr int kRedrawMs = 1000;
    static constexpr int kLogIntervalMs = 60000;
    // With standard output piped (| tee) and standard error a terminal, the pipe's lines reach
    // the screen whenever the reader writes them, so a line redrawn in place would be torn; the
    // line is then written whole, this often.
    static constexpr int kPipedIntervalMs = 10000;

    enum class Display {
        None,
        // Redrawn in place on standard error.
        InPlace,
        // Whole lines on standard error now and then.
        Lines,
    };
    static Display displayFor(bool standardErrorIsTerminal, bool standardOutputIsTerminal);

    // toLog: a line in the run log once a minute even when neither terminal nor --verbose is
    // there to ask for it.
    Progress(RunLog &log, const VerboseLog &verbose, Display display, bool toLog);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;

    // A step in flight for as long as it lives.
    class Step
    {
    public:
        Step(Progress &progress, const QString &step);
        ~Step();
        Step(const Step &) = delete;
        Step &operator=(const Step &) = delete;

    private:
        Progress &m_progress;
        const QString m_step;
    };

    void setTotal(qint64 units, const QString &whatOf);
    void advance(qint64 units, qint64 rowsChanged);
    void setStepCount(int steps, const QString &stepName);
    // One more of the steps counted by setStepCount() is done.
    void stepDone();
    // What the run waits for, shown until it is cleared with an empty text.
    void setWaiting(const QString &text);
    // Why the run starts no new unit, shown with how long it has paused until it is cleared with an
    // empty text; the time left counts working time only.
    void setPause(const QString &cause);

    // The text of the line as it stands.
    QString line() const;
    // Whether anyone sees the line: a terminal, the run log or --verbose.
    bool shown() const { return active(); }

    // "12 s", "3 min 4 s", "1 h 2 min".
    static QString duration(qint64 ms);

private:
    void begin(const QString &step);
    void end(const QString &step);
    bool active() const { return m_display != Display::None || m_toLog; }
    void work();
    void show(bool logDue);
    void draw(const QString &text) const;

    RunLog &m_log;
    const VerboseLog &m_verbose;
    const Display m_display;
    const bool m_toLog;
    QElapsedTimer m_clock;

    mutable std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_finished = false;
    qint64 m_total = 0;
    qint64 m_done = 0;
    qint64 m_changed = 0;
    QString m_whatOf;
    int m_steps = 0;
    int m_stepsDone = 0;
    QString m_stepName;
    QStringList m_inFlight;
    QString m_waiting;
    QString m_pause;
    // On m_clock: when the pause began, and the time paused before it.
    qint64 m_pauseStart = 0;
    qint64 m_pausedMs = 0;
    std::unique_ptr<QThread> m_thread;
};

#pragma once

#include <QString>

#include <atomic>
#include <functional>
#include <mutex>

// The operator's or the system's request to end the run: SIGINT, SIGTERM and SIGHUP on POSIX;
// Ctrl-C, Ctrl-Break and closing the console on Windows. The first request runs the action the
// run has set (cancelling the statements in flight), again and again until the process ends,
// and lets the run end as usual; the process ends at the latest kEndLimitMs after it. A second
// request ends the process at once.
class Interrupts
{
public:
    static constexpr int kEndLimitMs = 15000;
    // A statement sent just as the action ran is caught by the next round.
    static constexpr int kRepeatMs = 500;
    static constexpr int kInterruptedExitStatus = 1;
    // Windows console control events, by their numbers.
    enum ConsoleEvent : unsigned long { CtrlC = 0, CtrlBreak = 1, ConsoleClosed = 2 };

    // Sets the action for as long as it lives; the action is never run after that.
    class Action
    {
    public:
        explicit Action(std::function<void()> action);
        ~Action();
        Action(const Action &) = delete;
        Action &operator=(const Action &) = delete;
    };

    // Run by the watchdog just before it ends the process, for as long as it lives: what the
    // run must still say and release when its own thread is stuck (in a connection attempt,
    // in a driver call).
    class LastWords
    {
    public:
        explicit LastWords(std::function<void()> words);
        ~LastWords();
        LastWords(const LastWords &) = delete;
        LastWords &operator=(const LastWords &) = delete;
    };

    // Never destroyed: the platform's handlers may run until the process is gone.
    static Interrupts &instance();
    static QString consoleEventName(unsigned long event);

    // Installs the platform's handlers, once.
    void install();
    bool requested() const { return m_requested; }
    // The signal or console event that interrupted the run.
    QString name() const;
    // Called by the platform's handlers, on a thread of their own.
    void raise(const QString &name);
    // True for the first caller only: the interrupt is reported once, by the run or by the
    // watchdog, whichever comes first.
    bool claimReport() { return !m_reported.exchange(true); }

private:
    Interrupts() = default;
    void installHandlers();
    void repeatAction();
    void endProcess();

    std::atomic<bool> m_raised{false};
    std::atomic<bool> m_requested{false};
    std::atomic<bool> m_reported{false};
    std::once_flag m_installed;
    mutable std::mutex m_nameMutex;
    QString m_name;
    // Held while the action runs, so that it is never run after its owner is gone.
    std::mutex m_actionMutex;
    std::function<void()> m_action;
    std::mutex m_lastWordsMutex;
    std::function<void()> m_lastWords;
};

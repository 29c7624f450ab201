#include "app/run/Interrupts.h"

#include <chrono>
#include <cstdlib>
#include <thread>

Interrupts::Action::Action(std::function<void()> action)
{
    Interrupts &interrupts = instance();
    const std::lock_guard<std::mutex> lock(interrupts.m_actionMutex);
    interrupts.m_action = std::move(action);
}

Interrupts::Action::~Action()
{
    Interrupts &interrupts = instance();
    const std::lock_guard<std::mutex> lock(interrupts.m_actionMutex);
    interrupts.m_action = nullptr;
}

Interrupts::LastWords::LastWords(std::function<void()> words)
{
    Interrupts &interrupts = instance();
    const std::lock_guard<std::mutex> lock(interrupts.m_lastWordsMutex);
    interrupts.m_lastWords = std::move(words);
}

Interrupts::LastWords::~LastWords()
{
    Interrupts &interrupts = instance();
    const std::lock_guard<std::mutex> lock(interrupts.m_lastWordsMutex);
    interrupts.m_lastWords = nullptr;
}

Interrupts &Interrupts::instance()
{
    static Interrupts *const interrupts = new Interrupts;
    return *interrupts;
}

QString Interrupts::consoleEventName(unsigned long event)
{
    switch (event) {
    case CtrlC:
        return QStringLiteral("Ctrl-C");
    case CtrlBreak:
        return QStringLiteral("Ctrl-Break");
    case ConsoleClosed:
        return QStringLiteral("closing the console");
    default:
        return QStringLiteral("console event %1").arg(event);
    }
}

void Interrupts::install()
{
    std::call_once(m_installed, [this] { installHandlers(); });
}

QString Interrupts::name() const
{
    const std::lock_guard<std::mutex> lock(m_nameMutex);
    return m_name;
}

void Interrupts::raise(const QString &name)
{
    if (m_raised.exchange(true))
        std::_Exit(kInterruptedExitStatus);
    {
        const std::lock_guard<std::mutex> lock(m_nameMutex);
        m_name = name;
    }
    m_requested = true;
    // The limit holds even when the action hangs, say on a server that no longer answers.
    std::thread([this] {
        std::this_thread::sleep_for(std::chrono::milliseconds(kEndLimitMs));
        endProcess();
    }).detach();
    std::thread([this] { repeatAction(); }).detach();
}

void Interrupts::repeatAction()
{
    for (;;) {
        {
            const std::lock_guard<std::mutex> lock(m_actionMutex);
            if (m_action)
                m_action();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kRepeatMs));
    }
}

void Interrupts::endProcess()
{
    {
        const std::lock_guard<std::mutex> lock(m_lastWordsMutex);
        if (m_lastWords)
            m_lastWords();
    }
    std::_Exit(kInterruptedExitStatus);
}

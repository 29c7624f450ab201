#pragma once

// Ends the calling thread's OpenSSL state (the random generators that libpq's SCRAM exchange
// makes for each thread) when it goes out of scope, at the end of a thread that opened
// connections. OpenSSL frees that state itself from a thread-exit hook, which runs after
// QThread::wait() has returned: a run could reach its exit, and OpenSSL's clean-up at exit,
// with the hook yet to run.
class ThreadCryptoState
{
public:
    ThreadCryptoState() = default;
    ~ThreadCryptoState();
    ThreadCryptoState(const ThreadCryptoState &) = delete;
    ThreadCryptoState &operator=(const ThreadCryptoState &) = delete;
};

#include "app/run/ThreadCryptoState.h"

#include <openssl/crypto.h>

ThreadCryptoState::~ThreadCryptoState()
{
    OPENSSL_thread_stop();
}

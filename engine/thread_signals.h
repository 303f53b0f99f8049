#pragma once

#include <csignal>

namespace sonetrix::dev {

/// To be called first in every engine thread: SIGINT and SIGTERM belong to the program's console and signal threads.
inline void blockSignalsInThisThread() noexcept {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

} // namespace sonetrix::dev

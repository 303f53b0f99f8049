#pragma once

#include <atomic>
#include <pthread.h>
#include <unistd.h>

namespace sonetrix::dev {

inline std::atomic<bool> forkedChild{false};
inline const int forkHandler = ::pthread_atfork(nullptr, nullptr, [] { forkedChild = true; });

/// Whether this is a process that a script has forked: of the engine's threads none is here but the one that forked, if
/// it was one, and the audio and the files are the parent's.
inline bool isForkedChild() noexcept { return forkedChild; }

/// A child that was forked on a thread of the engine's has nothing to come back to.
inline void endForkedChild() noexcept {
    if (isForkedChild())
        ::_exit(0);
}

} // namespace sonetrix::dev

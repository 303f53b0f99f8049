// What the interpreter's finalisation does to a thread of Python's that is left: where it asks for the lock, it ends.
#pragma once

#include "python.h"

#include <utility>

namespace sonetrix {

// Blocks the calling thread for ever.
[[noreturn]] void hangThread() noexcept;

// Makes a call of the interpreter below which the thread may ask for the interpreter lock, as it does wherever Python
// code runs. Up to CPython 3.13 a thread that asks for it during finalisation is unwound by pthread_exit; the frames
// above hold references that may not be dropped then, so the thread hangs where it is, which is what later versions do
// with it themselves.
template <class Call, class... Args>
[[gnu::always_inline]] inline decltype(auto) hangingAtFinalisation(Call &&call, Args &&...args) {
#if PY_VERSION_HEX < 0x030E0000
    try {
        return std::forward<Call>(call)(std::forward<Args>(args)...);
    } catch (...) { // no exception of C++: there is only C below
        hangThread();
    }
#else
    return std::forward<Call>(call)(std::forward<Args>(args)...);
#endif
}

} // namespace sonetrix

// The interpreter lock as scope guards. The library's raw lock calls are in this header and in interpreter_guard.cpp.
#pragma once

#include "compatibility.h"
#include "finalisation.h"

#include <utility>

namespace sonetrix {

// Holds the interpreter lock, whether or not the thread held it before. For the console thread and for threads that are
// Python's own; engine threads come in by EngineThreadEntry.
class GilHeld : NonCopyable {
public:
    GilHeld() noexcept : state_(hangingAtFinalisation(PyGILState_Ensure)) {}
    ~GilHeld() { PyGILState_Release(state_); }

private:
    PyGILState_STATE state_;
};

// Gives the interpreter lock up, for an engine call. No Python object may be touched meanwhile.
class GilReleased : NonCopyable {
public:
    GilReleased() noexcept : state_(PyEval_SaveThread()) {}
    ~GilReleased() { hangingAtFinalisation(PyEval_RestoreThread, state_); }

private:
    PyThreadState *state_;
};

// call(arguments...), of the engine, with the interpreter lock released.
template <class Call, class... Arguments> decltype(auto) unlocked(Call &&call, Arguments &&...arguments) {
    const GilReleased released;
    return std::forward<Call>(call)(std::forward<Arguments>(arguments)...);
}

// Takes or gives up the lock without a scope: for the console thread, at the interpreter's end.
inline void acquireGil() noexcept { PyGILState_Ensure(); }
inline void releaseGil() noexcept { PyEval_SaveThread(); }

// Whether the calling thread holds the interpreter lock. Not PyGILState_Check(), which says yes to every thread once a
// script has made a second interpreter.
inline bool holdsGil() noexcept {
#if PY_VERSION_HEX >= 0x030C0000
    return PyThreadState_GetUnchecked() != nullptr;
#else
    const PyThreadState *holder = PyThreadState_GetUnchecked();
    return holder != nullptr && holder == PyGILState_GetThisThreadState();
#endif
}

} // namespace sonetrix

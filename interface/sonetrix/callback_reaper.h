// Ends registrations on a thread of its own, for those who must not wait.
//
// Removal waits for a call in progress on another thread. A callable that drops an object would so wait, on its engine
// thread, for another engine thread's callable, which may be waiting for it in turn; and the interpreter's end would
// wait for ever for a callable that does not return. Only the end waits for this thread, for a limited time.
#pragma once

#include "python/ref.h"

#include <sonetrix/engine_api.h>

#include <chrono>

namespace sonetrix {

// One registration to end, and the callable that has to live until then.
struct Removal {
    void (*remove)(sonetrix_engine_t *engine, void *handle);
    sonetrix_engine_t *engine;
    void *handle;
    PyObject *callback; // owned
};

// Hands a removal over; needs the interpreter lock. False when there is no thread for it.
bool removeLater(const Removal &removal) noexcept;

// Whether such a registration of the callable has been handed over and is not ended yet, so that the engine may still
// call for it; needs the interpreter lock.
bool awaitsRemoval(decltype(Removal::remove) remove, const PyObject *callback) noexcept;

// Waits until all removals handed over so far are done; false when some are not after `limit`. The caller must not hold
// the interpreter lock.
bool waitForRemovals(std::chrono::milliseconds limit) noexcept;

// Waits until all removals are done and ends the thread; false when some are not after `limit`. The caller must not
// hold the interpreter lock.
bool endReaper(std::chrono::milliseconds limit) noexcept;

} // namespace sonetrix

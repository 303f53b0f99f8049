// A registration with the engine: a callable that engine threads call until it is removed.
//
//   registering ──▶ live ──▶ removing ──▶ gone
//        └──────────────────────────────────▲    the engine refused it
//
//   registering   the engine is asked, with the interpreter lock released, and may call before it has answered
//   live          the Python object that owns it lives
//   removing      the object is gone, or the interpreter ends; the engine has the callable still
//   gone          the engine has let go; the callable is released now, not before
//
// The engine hands the callable back as user data, so a call is for a callable, not for a registration. What the rules
// need to know is kept per callable, in the registry, a monitor of its own: how many registrations are registering or
// live (L), how many removing (R), how many calls are in progress (C). It is never held while anything waits or while
// the engine or Python runs; whoever holds it may hold the interpreter lock, and never asks for that.
//
//   a call      is delivered if L > 0, else it ends at once, having touched nothing. So when the last registration is
//               being removed no call begins, and one that is on its way cannot hold the removal up.
//   removal     is the engine's function, which waits for a call of that registration on another thread. Where L = 0, R
//               is this one alone and nobody else is in the callable, there is nothing to wait for but calls that end
//               at once: the dropping thread makes it itself. (A new registration of the callable waits until that is
//               done.) Else a thread of ours, the removal worker, makes it as soon as C = 0 or L > 0.
//   a drop      that goes to the worker waits for it, with the lock released, five seconds at most, and then names in
//               the log the callable that holds the removal up; until the worker is through, later drops do not wait.
//               Nor does a drop wait inside a callable, in a collection by the garbage collector, where nobody knows
//               what the thread holds that the callable may want, or on the worker.
//
// The worker also disposes of the states of engine threads that have ended (interpreter_guard.h): the finalizers that
// this runs hold up removals at most, like those of callables.
//
// Hence nobody waits without limit, whatever locks are held: a call waits for the interpreter lock only, and nobody
// keeps that while waiting for an engine thread; the worker waits for callables and finalizers, and nobody waits for
// the worker without limit. What a callable does, registering and dropping included, it does like any other code.
//
//   the end         removeAllRegistrations() removes what is live, oldest first, and waits five seconds for what the
//                   worker has; after it there are no new registrations and the worker makes no engine call.
//   a forked child  has no engine threads and no worker, but for one of its own. Its parent's registrations go without
//                   a call of the engine, which would wait for threads that only the parent has. One that a finalizer
//                   forks on the worker ends where the finalizer comes back.
#pragma once

#include "python/ref.h"

#include <sonetrix/engine_api.h>

#include <memory>

namespace sonetrix {

struct Registration;
struct CallableUse;

// The engine's function that removes a registration.
using RemoveFunction = void (*)(sonetrix_engine_t *engine, void *handle);

// All of it needs the interpreter lock; what waits gives it up meanwhile.

// A registration in state registering, or null when the interpreter is ending. Throws std::bad_alloc.
std::shared_ptr<Registration> beginRegistration(RemoveFunction remove, PyObject *callable);
// The engine's answer; null is a refusal.
void completeRegistration(Registration &registration, void *handle) noexcept;
// Its owner drops it. Nothing happens unless it is live.
void dropRegistration(Registration &registration) noexcept;

// The callable as long as it is the owner's: for the garbage collector.
PyObject *ownedCallable(const Registration &registration) noexcept;
// False when the engine refused it.
bool isRegistered(const Registration &registration) noexcept;

// One call of a callable on the calling thread, which holds the interpreter lock.
class CallScope : NonCopyable {
public:
    explicit CallScope(void *user) noexcept;
    ~CallScope();

    // False when there is no registration that the call can be for: nothing is to be called.
    explicit operator bool() const noexcept { return use_ != nullptr; }
    // Alive until the scope ends, whatever the callable drops.
    PyObject *callable() const noexcept { return callable_.get(); }

private:
    friend int callsOfThisThread(const CallableUse &use) noexcept;

    CallableUse *use_ = nullptr;
    Ref callable_;
    CallScope *outer_ = nullptr;
};

// Says that the garbage collector begins a collection on this thread, or that there is none.
void setCollecting(bool collecting) noexcept;

// The end of all registrations; see above. False when some are not gone in time, or a finalizer is still running.
bool removeAllRegistrations() noexcept;

// Has the removal worker look for what there is to do. Needs no lock.
void wakeRemovalWorker() noexcept;

// To be called once: how forked children start.
void watchForksOfRegistrations() noexcept;

} // namespace sonetrix

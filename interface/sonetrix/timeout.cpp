// The class `timeout`, a timer of the engine, and engine.addTimer.

#include "callback_classes.h"
#include "engine.h"
#include "log.h"
#include "python/interpreter_guard.h"

namespace sonetrix {

namespace {

void timerCb(void *user) {
    const EngineThreadEntry entry(EngineThreadEntry::LockOrder::ignore);
    if (!entry) {
        return;
    }
    const CallScope scope(user);
    if (!scope) {
        return;
    }
    const Ref result = Ref::steal(hangingAtFinalisation(PyObject_CallNoArgs, scope.callable()));
    if (result) {
        return;
    }
    try {
        warnWithTraceback("exception in callback timer: ");
    } catch (...) {
        reportThrown("sonetrix.timeout.timerCb");
    }
}

constexpr Method constructor = {"timeout", "(timeout_ms: int, callback)",
    "Utility class to add a timer to the engine, which will invoke a callback as soon as timeout elapses.\n"
    "by the engine.\n\n"
    "timeout(timeout_ms, callback): see engine.addTimer.",
    {}};

Ref make(PyTypeObject *type, Arguments arguments) {
    const std::int32_t milliseconds = toInt32(arguments[0]);
    PyObject *callback = arguments[1];
    sonetrix_engine_t *engine = requireEngine();
    if (PyCallable_Check(callback) == 0) {
        raise(PyExc_ValueError);
    }
    return newCallback(type, sonetrix_engine_delTimer, callback, engine,
        [=](sonetrix_engine_t *handle) { return sonetrix_engine_addTimer(handle, milliseconds, timerCb, callback); });
}

Ref addTimer(Arguments arguments) {
    requireEngine();
    return call(held(Held::timeoutClass), arguments[0], arguments[1]);
}

constexpr Method functions[] = {
    {"addTimer", "(timeout_ms: int, callback) -> timeout",
        "Add a timer to invoke a callback, which can be any python-define function.\n\n"
        "- timeout_ms: the timeout in milliseconds\n"
        "- callback: the method to invoke when the timeout elapses\n"
        "Returns: a timeout object\n"
        "The callback is called without arguments, on a thread of the engine; dropping the object removes the timer.",
        function<addTimer>},
};

} // namespace

const std::span<const Method> engineTimerFunctions = functions;

void addTimeout(PyObject *module) {
    addCallbackClass(module, Held::timeoutClass, constructor, construct<constructor, make>);
}

} // namespace sonetrix

#include "console_thread.h"

#include "host_log.h"
#include "python/errors.h"

#include <pthread.h>
#include <unistd.h>
#include <utility>

#ifndef sigev_notify_thread_id
#define sigev_notify_thread_id _sigev_un._tid
#endif

namespace sonetrix::cli {

namespace {

using namespace std::chrono_literals;

constexpr int wakeSignal = SIGURG;
constexpr auto tick = 10ms;
constexpr auto grace = 3s;  // for running code, before it is interrupted and between two interruptions
constexpr int patience = 2; // how many of them it may swallow

thread_local bool displaying = false;

PyObject *onWake(PyObject *, PyObject *arguments) noexcept {
    if (PyErr_Occurred() != nullptr) {
        return nullptr; // input() looks for signals with KeyboardInterrupt on its way
    }
    const bool hasFrame = PyTuple_GET_SIZE(arguments) == 2 && PyTuple_GET_ITEM(arguments, 1) != Py_None;
    switch (ConsoleThread::instance().nextInterruption(hasFrame || displaying)) {
    case ConsoleThread::Interruption::keyboardInterrupt:
        PyErr_SetNone(PyExc_KeyboardInterrupt);
        return nullptr;
    case ConsoleThread::Interruption::systemExit:
        PyErr_SetNone(PyExc_SystemExit);
        return nullptr;
    case ConsoleThread::Interruption::none:
        break;
    }
    return Py_NewRef(Py_None);
}

PyMethodDef wakeHandler = {"wake_console", onWake, METH_VARARGS, nullptr};

} // namespace

ConsoleThread &ConsoleThread::instance() noexcept {
    static ConsoleThread thread;
    return thread;
}

void ConsoleThread::open(bool keepSigint) noexcept {
    keepSigint_ = keepSigint;
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = wakeSignal;
    event.sigev_notify_thread_id = gettid();
    timer_t timer{};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) == 0) {
        timer_ = timer;
    } else {
        log(SONETRIX_LOG_WARN, "no timer for stop requests: a request during a blocking call may come late");
    }
}

void ConsoleThread::close() noexcept {
    if (timer_) {
        timer_delete(*timer_);
        timer_.reset();
    }
}

void ConsoleThread::installHandler() noexcept {
    try {
        Ref signals = checked(PyImport_ImportModule("_signal"));
        Ref handler = checked(PyCFunction_New(&wakeHandler, nullptr));
        checked(PyObject_CallMethod(signals.get(), "signal", "iO", wakeSignal, handler.get()));
    } catch (const PythonError &) {
        PyErr_Clear();
        log(SONETRIX_LOG_WARN, "no handler for stop requests: a request during a blocking call may come late");
    }
}

ConsoleThread::Activity::Activity(Kind kind) noexcept {
    // The signals must reach the thread, whatever mask the engine gave it.
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, wakeSignal);
    if (!instance().keepSigint_) {
        sigaddset(&signals, SIGINT);
    }
    pthread_sigmask(SIG_UNBLOCK, &signals, &previousMask_);
    instance().begin(kind);
}

ConsoleThread::Activity::~Activity() {
    instance().end();
    pthread_sigmask(SIG_SETMASK, &previousMask_, nullptr);
}

ConsoleThread::Display::Display() noexcept : outer_(std::exchange(displaying, true)) {}

ConsoleThread::Display::~Display() { displaying = outer_; }

void ConsoleThread::begin(Activity::Kind kind) noexcept {
    const std::lock_guard guard(mutex_);
    active_ = true;
    recorded_ = kind == Activity::Kind::run;
    requested_ = false;
    sigintSent_ = false;
    raised_ = 0;
    thread_ = pthread_self();
}

void ConsoleThread::end() noexcept {
    {
        const std::lock_guard guard(mutex_);
        active_ = false;
        recorded_ = false;
        requested_ = false;
        startTicking(false); // a system call, after which every signal sent so far has been delivered
    }
    if (sigintSent_) {
        sigintSent_ = false;
        PyOS_InterruptOccurred(); // forgets it
    }
}

void ConsoleThread::startTicking(bool on) noexcept {
    if (!timer_) {
        return;
    }
    itimerspec period{};
    if (on) {
        period.it_interval.tv_nsec = std::chrono::nanoseconds(tick).count();
        period.it_value = period.it_interval;
    }
    timer_settime(*timer_, 0, &period, nullptr);
}

void ConsoleThread::sendSigint() noexcept {
    usleep(100);
    log(SONETRIX_LOG_DEBUG, "SIGINT to python cli thread");
    struct sigaction action {};
    // The default disposition would end the process.
    const bool deadly = sigaction(SIGINT, nullptr, &action) != 0 ||
                        ((action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL);
    if (deadly || pthread_kill(thread_, SIGINT) != 0) {
        log(SONETRIX_LOG_DEBUG, "error in raise SIGINT");
        return;
    }
    sigintSent_ = true;
}

void ConsoleThread::interrupt() noexcept {
    const std::lock_guard guard(mutex_);
    if (!active_) {
        return;
    }
    requested_ = true;
    nextRaise_ = Clock::now() + grace;
    if (recorded_) {
        sendSigint();
    }
    startTicking(true);
}

bool ConsoleThread::isInterrupted() noexcept {
    const std::lock_guard guard(mutex_);
    return requested_;
}

ConsoleThread::Interruption ConsoleThread::nextInterruption(bool codeIsRunning) noexcept {
    const std::lock_guard guard(mutex_);
    if (!requested_) {
        return Interruption::none;
    }
    if (!codeIsRunning) {
        return Interruption::keyboardInterrupt;
    }
    if (keepSigint_ || Clock::now() < nextRaise_) {
        return Interruption::none;
    }
    nextRaise_ = Clock::now() + grace;
    return ++raised_ > patience ? Interruption::systemExit : Interruption::keyboardInterrupt;
}

bool ConsoleThread::hasRaisedSystemExit() noexcept {
    const std::lock_guard guard(mutex_);
    return raised_ > patience;
}

} // namespace sonetrix::cli

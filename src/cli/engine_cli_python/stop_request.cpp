#include "stop_request.h"

#include "host_log.h"
#include "python/errors.h"
#include "python/gil.h"

#include <chrono>
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

PyObject *onWake(PyObject *, PyObject *) noexcept {
    if (PyErr_Occurred() == nullptr && StopRequest::instance().isRequested()) {
        PyErr_SetNone(PyExc_KeyboardInterrupt);
    }
    return PyErr_Occurred() != nullptr ? nullptr : Py_NewRef(Py_None);
}

PyMethodDef wakeHandler = {"wake_console", onWake, METH_VARARGS, nullptr};

// signal.signal(SIGURG, handler): the previous handler, or none with an exception set.
Ref setWakeHandler(PyObject *handler) noexcept {
    const Ref signals = Ref::steal(PyImport_ImportModule("_signal"));
    return Ref::steal(signals ? PyObject_CallMethod(signals.get(), "signal", "iO", wakeSignal, handler) : nullptr);
}

} // namespace

SignalMask::SignalMask(int how, std::initializer_list<int> signals) noexcept {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) {
        sigaddset(&set, signal);
    }
    pthread_sigmask(how, &set, &previous_);
}

SignalMask::~SignalMask() { pthread_sigmask(SIG_SETMASK, &previous_, nullptr); }

StopRequest::StopRequest() noexcept {
    // A script that forks while a request is being sent: the child's mutex is free, too.
    pthread_atfork(
        [] { instance().mutex_.lock(); }, [] { instance().mutex_.unlock(); }, [] { instance().mutex_.unlock(); });
}

StopRequest &StopRequest::instance() noexcept {
    static StopRequest request;
    return request;
}

void StopRequest::open() noexcept {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = wakeSignal;
    event.sigev_notify_thread_id = gettid();
    timer_t timer{};
    if (timer_create(CLOCK_MONOTONIC, &event, &timer) == 0) {
        timer_ = timer;
    } else {
        log(SONETRIX_LOG_WARN, "no timer for stop requests: a request at the prompt may come late");
    }
}

void StopRequest::close() noexcept {
    if (timer_) {
        timer_delete(*timer_);
        timer_.reset();
    }
}

void StopRequest::send() noexcept {
    const std::lock_guard guard(mutex_);
    if (!runs_) {
        return;
    }
    requested_ = true;
    usleep(100);
    log(SONETRIX_LOG_DEBUG, "SIGINT to python cli thread");
    struct sigaction action {};
    // The default disposition would end the process.
    const bool deadly = sigaction(SIGINT, nullptr, &action) != 0 ||
                        ((action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL);
    sigintSent_ = !deadly && pthread_kill(thread_, SIGINT) == 0;
    if (!sigintSent_) {
        log(SONETRIX_LOG_DEBUG, "error in raise SIGINT");
    }
    startTimer(reads_);
}

StopRequest::Run::Run(bool interactive) noexcept {
    StopRequest &request = instance();
    const std::lock_guard guard(request.mutex_);
    request.runs_ = true;
    request.interactive_ = interactive;
    request.requested_ = false;
    request.sigintSent_ = false;
    request.thread_ = pthread_self();
}

StopRequest::Run::~Run() {
    StopRequest &request = instance();
    {
        const std::lock_guard guard(request.mutex_);
        request.runs_ = false;
        request.startTimer(false); // a system call, after which every signal sent so far has been delivered
    }
    if (std::exchange(request.sigintSent_, false)) {
        PyOS_InterruptOccurred(); // forgets it
    }
}

StopRequest::PromptRead::PromptRead() noexcept {
    const RaisedException raised;
    sigaction(wakeSignal, nullptr, &previousAction_);
    const Ref handler = Ref::steal(PyCFunction_New(&wakeHandler, nullptr));
    previousHandler_ = handler ? setWakeHandler(handler.get()) : Ref();
    StopRequest &request = instance();
    const std::lock_guard guard(request.mutex_);
    request.reads_ = true;
}

StopRequest::PromptRead::~PromptRead() {
    {
        StopRequest &request = instance();
        const std::lock_guard guard(request.mutex_);
        request.reads_ = false;
        request.startTimer(false);
    }
    const RaisedException raised;
    if (previousHandler_ && previousHandler_.get() != Py_None) { // None: not Python's, so the action says it all
        setWakeHandler(previousHandler_.get());
    }
    sigaction(wakeSignal, &previousAction_, nullptr);
}

bool StopRequest::isRequested() noexcept {
    const std::lock_guard guard(mutex_);
    return requested_;
}

bool StopRequest::hasInterruptedConsole() noexcept {
    const std::lock_guard guard(mutex_);
    return interactive_ && runs_ && requested_;
}

void StopRequest::startTimer(bool on) noexcept {
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

} // namespace sonetrix::cli

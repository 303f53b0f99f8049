#include "stop_request.h"

#include "host_log.h"
#include "python/errors.h"
#include "python/gil.h"

#include <chrono>
#include <ctime>
#include <mutex>
#include <optional>
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
constexpr std::chrono::nanoseconds promptTick = 10ms;
constexpr std::chrono::nanoseconds runTick = 500ms;

std::mutex mutex;   // held for the time of a signal, never while anything waits for the console
pthread_t thread{}; // the console thread
bool runs = false;  // `run` is in progress
bool reads = false; // at its own prompt
bool isInteractive = false;
bool requested = false;
bool sigintSent = false;
std::optional<timer_t> timer;

// Zero stops it.
void startTimer(std::chrono::nanoseconds period) noexcept {
    if (timer) {
        const timespec ticks = {.tv_sec = 0, .tv_nsec = period.count()};
        const itimerspec times = {.it_interval = ticks, .it_value = ticks};
        timer_settime(*timer, 0, &times, nullptr);
    }
}

void interruptSystemCall(int) noexcept {}

void replaceWakeAction(sighandler_t old, sighandler_t handler) noexcept {
    struct sigaction action {};
    sigaction(wakeSignal, nullptr, &action);
    if (action.sa_handler == old) {
        action = {}; // system calls are not begun again
        action.sa_handler = handler;
        sigaction(wakeSignal, &action, nullptr);
    }
}

PyObject *onWake(PyObject *, PyObject *) noexcept {
    if (PyErr_Occurred() == nullptr && stopIsRequested()) {
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

void openStopRequests() noexcept {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = wakeSignal;
    event.sigev_notify_thread_id = gettid();
    timer_t created{};
    if (timer_create(CLOCK_MONOTONIC, &event, &created) == 0) {
        timer = created;
    } else {
        log(SONETRIX_LOG_WARN, "no timer for stop requests: a request at the prompt may come late");
    }
    // A script that forks while a request is being sent: the child's mutex is free, too.
    static const int watchesForks =
        pthread_atfork([] { mutex.lock(); }, [] { mutex.unlock(); }, [] { mutex.unlock(); });
    static_cast<void>(watchesForks);
}

void closeStopRequests() noexcept {
    if (timer) {
        timer_delete(*timer);
        timer.reset();
    }
}

void sendStopRequest() noexcept {
    const std::lock_guard guard(mutex);
    if (!runs) {
        return;
    }
    requested = true;
    usleep(100);
    log(SONETRIX_LOG_DEBUG, "SIGINT to python cli thread");
    struct sigaction action {};
    // The default disposition would end the process.
    const bool deadly = sigaction(SIGINT, nullptr, &action) != 0 ||
                        ((action.sa_flags & SA_SIGINFO) == 0 && action.sa_handler == SIG_DFL);
    sigintSent = !deadly && pthread_kill(thread, SIGINT) == 0;
    if (!sigintSent) {
        log(SONETRIX_LOG_DEBUG, "error in raise SIGINT");
    }
    startTimer(reads ? promptTick : runTick);
}

RunInProgress::RunInProgress(bool interactive) noexcept {
    replaceWakeAction(SIG_DFL, interruptSystemCall);
    const std::lock_guard guard(mutex);
    runs = true;
    isInteractive = interactive;
    requested = false;
    sigintSent = false;
    thread = pthread_self();
}

RunInProgress::~RunInProgress() {
    {
        const std::lock_guard guard(mutex);
        runs = false;
        startTimer(0ns); // a system call, after which every signal sent so far has been delivered
    }
    replaceWakeAction(interruptSystemCall, SIG_DFL);
    if (std::exchange(sigintSent, false)) {
        PyOS_InterruptOccurred(); // forgets it
    }
}

PromptRead::PromptRead() noexcept {
    const RaisedException raised;
    sigaction(wakeSignal, nullptr, &previousAction_);
    const Ref handler = Ref::steal(PyCFunction_New(&wakeHandler, nullptr));
    previousHandler_ = handler ? setWakeHandler(handler.get()) : Ref();
    const std::lock_guard guard(mutex);
    reads = true;
}

PromptRead::~PromptRead() {
    {
        const std::lock_guard guard(mutex);
        reads = false;
        startTimer(0ns);
    }
    const RaisedException raised;
    if (previousHandler_ && previousHandler_.get() != Py_None) { // None: not Python's, so the action says it all
        setWakeHandler(previousHandler_.get());
    }
    sigaction(wakeSignal, &previousAction_, nullptr);
}

bool stopIsRequested() noexcept {
    const std::lock_guard guard(mutex);
    return requested;
}

bool stopHasInterruptedConsole() noexcept {
    const std::lock_guard guard(mutex);
    return isInteractive && runs && requested;
}

} // namespace sonetrix::cli

#include "program/termination_signals.h"

#include <cerrno>
#include <csignal>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

namespace sonetrix::dev {

namespace {

std::atomic<int> newestSignal{0};
sem_t arrived; // the only way of waking a thread that a signal handler has

// A signal that the process directs at its own thread only interrupts that thread: so the console is woken for a stop.
void onSignal(int number, siginfo_t *info, void *) {
    if (info->si_code == SI_TKILL && info->si_pid == ::getpid())
        return;
    const int saved = errno;
    newestSignal = number;
    ::sem_post(&arrived);
    errno = saved;
}

void handle(int number) {
    struct sigaction action {};
    action.sa_sigaction = onSignal;
    action.sa_flags = SA_SIGINFO; // no SA_RESTART: a blocked read has to return
    sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

// In a child that a script forks, signals have their usual effect.
void onFork() {
    for (const int number : {SIGTERM, SIGHUP, SIGINT}) {
        struct sigaction current {};
        if (::sigaction(number, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) != 0 &&
            current.sa_sigaction == onSignal)
            std::signal(number, SIG_DFL);
    }
}

bool isIgnored(int number) {
    struct sigaction current {};
    return ::sigaction(number, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

} // namespace

TerminationSignals::TerminationSignals(bool withInterrupt, std::function<void()> requested)
    : requested_(std::move(requested)) {
    ::sem_init(&arrived, 0, 0);
    ::pthread_atfork(nullptr, nullptr, onFork);
    thread_.start();
    handle(SIGTERM);
    if (!isIgnored(SIGHUP)) // as under nohup
        handle(SIGHUP);
    if (withInterrupt)
        handle(SIGINT);
}

TerminationSignals::~TerminationSignals() {
    thread_.requestEnd();
    ::sem_post(&arrived);
    thread_.join();
}

void TerminationSignals::endAtOnce() {
    received_ = true;
    handle(SIGINT);
}

void TerminationSignals::round(const std::stop_token &stop) {
    while (::sem_wait(&arrived) != 0) { // interrupted
    }
    if (stop.stop_requested())
        return;
    if (received_.exchange(true))
        ::_exit(status_.load().value_or(128 + newestSignal));
    requested_();
}

} // namespace sonetrix::dev

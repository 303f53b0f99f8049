#pragma once

#include "thread.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <functional>
#include <optional>
#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>
#include <utility>

namespace sonetrix::dev {

inline struct sigaction dispositionOf(int signal) noexcept {
    struct sigaction current {};
    ::sigaction(signal, nullptr, &current);
    return current;
}

/// Turns SIGTERM and SIGHUP, and SIGINT if wanted, into a call of `requested` on a thread of its own. After the first,
/// another one from outside ends the process at once. The handlers stay for the life of the process; there is one
/// object at a time.
class TerminationSignals {
public:
    TerminationSignals(bool withInterrupt, std::function<void()> requested) : requested_(std::move(requested)) {
        ::sem_init(&arrived, 0, 0);
        ::pthread_atfork(nullptr, nullptr, onFork);
        thread_.start();
        handle(SIGTERM);
        if (dispositionOf(SIGHUP).sa_handler != SIG_IGN) // as under nohup
            handle(SIGHUP);
        if (withInterrupt)
            handle(SIGINT);
    }
    TerminationSignals(const TerminationSignals &) = delete;
    TerminationSignals &operator=(const TerminationSignals &) = delete;
    ~TerminationSignals() {
        thread_.requestEnd();
        ::sem_post(&arrived);
        thread_.join();
    }

    /// The status to end with, in place of the usual one of a signal.
    void setStatus(int status) noexcept { status_ = status; }
    /// Nothing is left to do but to wait: any of the signals, SIGINT among them, ends the process at once from now on.
    void endAtOnce() {
        received_ = true;
        handle(SIGINT);
    }
    /// Whether such a signal has come.
    [[nodiscard]] bool received() const noexcept { return received_; }

private:
    // A signal that the process directs at its own thread only interrupts that thread: so the console is woken for a
    // stop.
    static void onSignal(int number, siginfo_t *info, void * /*context*/) {
        if (info->si_code == SI_TKILL && info->si_pid == ::getpid())
            return;
        const int saved = errno;
        newest = number;
        ::sem_post(&arrived);
        errno = saved;
    }
    static void handle(int number) {
        struct sigaction action {};
        action.sa_sigaction = onSignal;
        action.sa_flags = SA_SIGINFO; // no SA_RESTART: a blocked read has to return
        ::sigaction(number, &action, nullptr);
    }
    // In a child that a script forks, signals have their usual effect.
    static void onFork() {
        for (const int number : {SIGTERM, SIGHUP, SIGINT})
            if (dispositionOf(number).sa_sigaction == onSignal)
                std::signal(number, SIG_DFL);
    }
    void round(const std::stop_token &stop) {
        while (::sem_wait(&arrived) != 0) { // interrupted
        }
        if (stop.stop_requested())
            return;
        if (received_.exchange(true))
            ::_exit(status_.load().value_or(128 + newest));
        requested_();
    }

    static inline std::atomic<int> newest{0};
    static inline sem_t arrived; // the only way of waking a thread that a signal handler has

    const std::function<void()> requested_;
    std::atomic<bool> received_{false};
    std::atomic<std::optional<int>> status_{std::nullopt};
    Thread thread_{"sonetrix-signal", [this](const std::stop_token &stop) { round(stop); }};
};

} // namespace sonetrix::dev

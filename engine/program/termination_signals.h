#pragma once

#include "thread.h"

#include <cerrno>
#include <semaphore.h>

namespace sonetrix::dev {

inline struct sigaction dispositionOf(int signal) noexcept {
    struct sigaction current {};
    ::sigaction(signal, nullptr, &current);
    return current;
}

/// Turns SIGTERM and SIGHUP, and SIGINT if wanted, into calls on a thread of its own. The handlers stay for the life of
/// the process; there is one object at a time.
class TerminationSignals {
public:
    /// `again`: it is not the first one, or there is nothing left to do but to wait.
    using Arrival = std::function<void(int signal, bool again)>;

    TerminationSignals(bool withInterrupt, Arrival onArrival) : onArrival_(std::move(onArrival)) {
        ::sem_init(&arrived, 0, 0);
        ::pthread_atfork(nullptr, nullptr, onFork);
        thread_.start();
        handle(SIGTERM);
        if (dispositionOf(SIGHUP).sa_handler != SIG_IGN) // as under nohup
            handle(SIGHUP);
        if (withInterrupt)
            handle(SIGINT);
    }
    ~TerminationSignals() {
        thread_.requestEnd();
        ::sem_post(&arrived);
        thread_.join();
    }

    /// Nothing is left to do but to wait, and SIGINT belongs to those signals from now on.
    void expectNothing() {
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
        onArrival_(newest, received_.exchange(true));
    }

    static inline std::atomic<int> newest{0};
    static inline sem_t arrived; // the only way of waking a thread that a signal handler has

    const Arrival onArrival_;
    std::atomic<bool> received_{false};
    Thread thread_{"sonetrix-signal", [this](const std::stop_token &stop) { round(stop); }};
};

} // namespace sonetrix::dev

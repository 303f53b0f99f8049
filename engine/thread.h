#pragma once

#include "sonetrix/engine_api.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <exception>
#include <functional>
#include <mutex>
#include <pthread.h>
#include <semaphore>
#include <stop_token>
#include <thread>
#include <unistd.h>
#include <utility>

namespace sonetrix::dev {

inline std::atomic<bool> forkedChild{false};
inline const int forkHandler = ::pthread_atfork(nullptr, nullptr, [] { forkedChild = true; });

/// Whether this is a process that a script has forked: of the engine's threads none is here but the one that forked, if
/// it was one, and the audio and the files are the parent's.
inline bool isForkedChild() noexcept { return forkedChild; }

/// A child that was forked on a thread of the engine's has nothing to come back to.
inline void endForkedChild() noexcept {
    if (isForkedChild())
        ::_exit(0);
}

/// Signals that end the program belong to its console and signal threads: every other thread calls this first.
inline void blockTerminationSignals() noexcept {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

/// A thread of the engine. It runs its round again and again until it is to end; a round that throws (there was no
/// memory) is logged, and the next one begins a moment later. Ends in its destructor: the last member of its owner.
class Thread {
public:
    using Clock = std::chrono::steady_clock;

    /// The name has at most fifteen characters.
    Thread(const char *name, std::function<void(const std::stop_token &)> round)
        : name_(name), round_(std::move(round)) {}

    /// Throws std::system_error when there is no thread to be had.
    void start() {
        thread_ = std::jthread([this](const std::stop_token &stop) {
            blockTerminationSignals();
            pthread_setname_np(pthread_self(), name_);
            while (!stop.stop_requested()) {
                try {
                    round_(stop);
                } catch (const std::exception &failure) { // only these: pthread_exit in a callback is none
                    sonetrix_log(SONETRIX_LOG_ERROR, __FILE__, __LINE__, 1, "%s: %s", name_, failure.what());
                    pause(stop, Clock::now() + std::chrono::milliseconds(100));
                }
            }
            ended_.release();
        });
    }
    /// Returns at once; the round in progress is the last.
    void requestEnd() noexcept { thread_.request_stop(); }
    void join() {
        requestEnd();
        if (thread_.joinable())
            thread_.join();
    }
    /// The same for so long; whether the thread has ended.
    bool joinUntil(Clock::time_point limit) {
        requestEnd();
        if (thread_.joinable() && !ended_.try_acquire_until(limit))
            return false;
        join();
        return true;
    }

    [[nodiscard]] std::stop_token stopToken() const noexcept { return thread_.get_stop_token(); }
    [[nodiscard]] bool isThisThread() const noexcept { return thread_.get_id() == std::this_thread::get_id(); }

    /// For the round: waits until then, or until the thread is to end.
    void pause(const std::stop_token &stop, Clock::time_point until) {
        std::unique_lock lock(mutex_);
        never_.wait_until(lock, stop, until, [] { return false; });
    }

private:
    const char *const name_;
    const std::function<void(const std::stop_token &)> round_;
    std::mutex mutex_;
    std::binary_semaphore ended_{0};
    std::condition_variable_any never_; // notified by the request to end only
    std::jthread thread_;
};

} // namespace sonetrix::dev

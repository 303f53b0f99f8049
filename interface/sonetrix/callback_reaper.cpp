#include "callback_reaper.h"

#include "python/gil.h"

#include <condition_variable>
#include <csignal>
#include <deque>
#include <mutex>
#include <thread>

namespace sonetrix {

namespace {

std::mutex mutex; // taken with the interpreter lock held, never the other way round
std::condition_variable changed;
std::deque<Removal> removals;
bool running = false;
bool busy = false; // with a removal that is no longer among the others
bool finishing = false;

// Detached when the process ends without an interpreter's end: a joinable thread may not be destroyed.
struct ReaperThread {
    std::thread thread;
    ReaperThread() = default;
    ReaperThread(const ReaperThread &) = delete;
    ReaperThread &operator=(const ReaperThread &) = delete;
    ~ReaperThread() {
        if (thread.joinable()) {
            thread.detach();
        }
    }
} reaper;

void carryOut(const Removal &removal) noexcept {
    removal.remove(removal.engine, removal.handle);
    // After the interpreter's end there is nothing left to let go of.
    if (const EngineThreadEntry entry(EngineThreadEntry::LockOrder::ignore); entry) {
        Ref::steal(removal.callback);
    }
}

void work() noexcept {
    std::unique_lock lock(mutex);
    for (;;) {
        changed.wait(lock, [] { return finishing || !removals.empty(); });
        if (removals.empty()) {
            break;
        }
        const Removal removal = removals.front();
        removals.pop_front();
        busy = true;
        lock.unlock();
        carryOut(removal);
        lock.lock();
        busy = false;
        changed.notify_all();
    }
    running = false;
    changed.notify_all();
}

void startReaper() {
    // Signals are for the console thread.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
        reaper.thread = std::thread(work);
        running = true;
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

} // namespace

bool removeLater(const Removal &removal) noexcept {
    try {
        const std::lock_guard guard(mutex);
        if (finishing) {
            return false;
        }
        if (!running) {
            startReaper();
        }
        removals.push_back(removal);
        changed.notify_all();
        return true;
    } catch (...) {
        return false;
    }
}

void waitForRemovals(std::chrono::milliseconds limit) noexcept {
    std::unique_lock lock(mutex);
    changed.wait_for(lock, limit, [] { return removals.empty() && !busy; });
}

bool finishRemovals(std::chrono::milliseconds limit) noexcept {
    std::unique_lock lock(mutex);
    finishing = true;
    changed.notify_all();
    if (!reaper.thread.joinable()) {
        return true;
    }
    if (!changed.wait_for(lock, limit, [] { return !running; })) {
        reaper.thread.detach();
        return false;
    }
    lock.unlock();
    reaper.thread.join();
    return true;
}

} // namespace sonetrix

#include "callback_reaper.h"

#include "python/gil.h"

#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <deque>
#include <map>
#include <mutex>
#include <new>
#include <pthread.h>
#include <thread>
#include <utility>

namespace sonetrix {

namespace {

struct Reaper {
    std::mutex mutex; // taken with the interpreter lock held, never the other way round
    std::condition_variable changed;
    std::deque<Removal> removals;
    bool running = false;
    bool busy = false; // with a removal that is no longer among the others
    bool finishing = false;
    std::thread thread;
    // How many of a callable's registrations are not ended yet; guarded by the interpreter lock.
    std::map<std::pair<const PyObject *, decltype(Removal::remove)>, std::size_t> awaited;
};

// Never destroyed: when the process ends without the interpreter's end, the thread is still waiting there.
alignas(Reaper) std::byte reaperMemory[sizeof(Reaper)];
Reaper &reaper = *new (reaperMemory) Reaper;

void awaitNoMore(const Removal &removal) noexcept {
    const auto found = reaper.awaited.find({removal.callback, removal.remove});
    if (--found->second == 0) {
        reaper.awaited.erase(found);
    }
}

void carryOut(const Removal &removal) noexcept {
    removal.remove(removal.engine, removal.handle);
    // After the interpreter's end there is nothing left to let go of.
    if (const EngineThreadEntry entry(EngineThreadEntry::LockOrder::ignore); entry) {
        awaitNoMore(removal);
        Ref::steal(removal.callback);
    }
}

void work() noexcept {
    pthread_setname_np(pthread_self(), "sonetrix-remove"); // else it bears the name of the thread that made it
    std::unique_lock lock(reaper.mutex);
    for (;;) {
        reaper.changed.wait(lock, [] { return reaper.finishing || !reaper.removals.empty(); });
        if (reaper.removals.empty()) {
            break;
        }
        const Removal removal = reaper.removals.front();
        reaper.removals.pop_front();
        reaper.busy = true;
        lock.unlock();
        carryOut(removal);
        lock.lock();
        reaper.busy = false;
        reaper.changed.notify_all();
    }
    reaper.running = false;
    reaper.changed.notify_all();
}

void startReaper() {
    // Signals are for the console thread.
    sigset_t all;
    sigset_t previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    try {
        reaper.thread = std::thread(work);
        reaper.running = true;
    } catch (...) {
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

} // namespace

bool removeLater(const Removal &removal) noexcept {
    try {
        const std::lock_guard guard(reaper.mutex);
        if (reaper.finishing) {
            return false;
        }
        if (!reaper.running) {
            startReaper();
        }
        ++reaper.awaited[{removal.callback, removal.remove}];
        try {
            reaper.removals.push_back(removal);
        } catch (...) {
            awaitNoMore(removal);
            throw;
        }
        reaper.changed.notify_all();
        return true;
    } catch (...) {
        return false;
    }
}

bool awaitsRemoval(decltype(Removal::remove) remove, const PyObject *callback) noexcept {
    return !reaper.awaited.empty() && reaper.awaited.contains({callback, remove});
}

bool waitForRemovals(std::chrono::milliseconds limit) noexcept {
    std::unique_lock lock(reaper.mutex);
    return reaper.changed.wait_for(lock, limit, [] { return reaper.removals.empty() && !reaper.busy; });
}

bool endReaper(std::chrono::milliseconds limit) noexcept {
    std::unique_lock lock(reaper.mutex);
    reaper.finishing = true;
    reaper.changed.notify_all();
    const bool ended = reaper.changed.wait_for(lock, limit, [] { return !reaper.running; });
    lock.unlock();
    if (reaper.thread.joinable()) {
        ended ? reaper.thread.join() : reaper.thread.detach();
    }
    return ended;
}

} // namespace sonetrix

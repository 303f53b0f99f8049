#include "record.h"

#include "engine.h"

#include <chrono>
#include <map>
#include <semaphore>

namespace sonetrix::record {

namespace {

auto &registries = *new std::array<dev::CallbackRegistry<Callback>, 4>; // by kind; outlives all threads
std::atomic<int32_t> callsInside = 0;

// Shows all registrations of the kind a copy of the list.
void callBack(int32_t kind, const sonetrix_cListKeyValue_t *source, int32_t times) {
    for (; times > 0; --times) {
        sonetrix_cListKeyValue_t list = source ? *source : sonetrix_cListKeyValue_t();
        registries.at(kind).callAll(&list);
    }
}

// Stays when its work is through, until it is destroyed.
struct EngineThread {
    std::binary_semaphore through{0};
    std::binary_semaphore ending{0};
    std::jthread thread;

    explicit EngineThread(std::function<void()> work)
        : thread([this, work = std::move(work)] {
              dev::blockTerminationSignals();
              work();
              through.release();
              ending.acquire();
          }) {}
    ~EngineThread() { ending.release(); }
};
std::mutex threadsMutex;
auto &engineThreads = *new std::map<int32_t, std::unique_ptr<EngineThread>>;

} // namespace

void *addRegistration(Kind kind, Callback callback, void *user) {
    void *const handle = registries.at(kind).add(std::move(callback), user);
    const int32_t times = callsInside.exchange(0);
    callBack(kind, nullptr, -times);
    if (times > 0)
        record_fireOn(-1, kind, nullptr, times, 100); // it may have to wait for us
    return handle;
}

void removeRegistration(const void *handle) {
    for (auto &registry : registries)
        registry.remove(handle);
}

} // namespace sonetrix::record

using namespace sonetrix::record;

// An engine that is never started.
void record_begin() {
    static auto &engine = *new sonetrix::dev::Engine({.offlineSeconds = 1}, {});
    static_cast<void>(engine);
}

// As odd as the value may be; without a key, to a list of values.
void record_add(void *list, const char *key, const sonetrix_value_t *value) {
    if (key)
        static_cast<sonetrix_cListKeyValue_t *>(list)->add(key, *value);
    else
        static_cast<sonetrix_cListValue_t *>(list)->addRecord(*value);
}

int64_t record_registrations(int32_t kind) { return static_cast<int64_t>(registries.at(kind).size()); }
void record_callInside(int32_t times) { callsInside = times; }
void record_fire(int32_t kind, const sonetrix_cListKeyValue_t *list, int32_t threads, int32_t times) {
    if (threads == 0)
        callBack(kind, list, times);
    std::vector<std::jthread> workers(static_cast<size_t>(threads));
    for (std::jthread &worker : workers)
        worker = std::jthread(callBack, kind, list, times);
}
void record_fireOn(int32_t thread, int32_t kind, const sonetrix_cListKeyValue_t *list, int32_t times, int32_t wait) {
    auto made = std::make_unique<EngineThread>([=] { callBack(kind, list, times); });
    EngineThread &one = *made;
    std::unique_lock lock(threadsMutex);
    engineThreads[thread].swap(made);
    lock.unlock();
    static_cast<void>(one.through.try_acquire_for(std::chrono::milliseconds(wait)));
}
void record_join(int32_t thread) {
    std::unique_lock lock(threadsMutex);
    const auto ending = engineThreads.extract(thread);
    lock.unlock();
}

#include "driver/driver.h"

#include "clock.h"
#include "driver/denormals.h"

#include <unistd.h>
#include <utility>

namespace sonetrix::dev {

Driver::Driver(uint32_t rate, uint32_t block, Process process)
    : rate_(rate), block_(block), process_(std::move(process)), load_(static_cast<double>(block) / rate) {}

Driver::~Driver() = default;

void Driver::start() {
    const std::lock_guard lock(threadMutex_);
    thread_.start("sonetrix-audio", [this](const std::stop_token & /*stop*/) { threadMain(); });
    loaded_.store(true, std::memory_order_release);
}

void Driver::stop() noexcept {
    const std::lock_guard lock(threadMutex_);
    stopping_.store(true, std::memory_order_release);
    thread_.requestEnd();
    interrupt();
    thread_.join();
    loaded_.store(false, std::memory_order_release);
}

void Driver::threadMain() noexcept {
    becomeAudioThread();
    run();
    threadId_.store(0, std::memory_order_relaxed);
}

void Driver::becomeAudioThread() noexcept {
    flushDenormalsInThisThread();
    threadId_.store(static_cast<uint32_t>(gettid()), std::memory_order_relaxed);
}

void Driver::processBlock(uint32_t wanted, double lateness) noexcept {
    blockBegan_.store(nanosecondsOf(CLOCK_REALTIME), std::memory_order_relaxed);
    const int64_t began = nanosecondsOf(CLOCK_MONOTONIC);
    process_(wanted);
    load_.add(secondsOf(nanosecondsOf(CLOCK_MONOTONIC) - began), lateness);
}

} // namespace sonetrix::dev

#include "driver/driver.h"

#include "clock.h"

#if defined(__x86_64__)
#include <immintrin.h>
#endif
#include <unistd.h>
#include <utility>

namespace sonetrix::dev {

namespace {

/// Denormals count as zero in the calling thread: a decaying filter must not become a hundred times slower.
void flushDenormalsInThisThread() noexcept {
#if defined(__x86_64__)
    constexpr unsigned flushToZero = 0x8000;
    constexpr unsigned denormalsAreZero = 0x0040;
    _mm_setcsr(_mm_getcsr() | flushToZero | denormalsAreZero);
#elif defined(__aarch64__)
    constexpr unsigned long flushToZero = 1UL << 24;
    unsigned long control = 0;
    __asm__ volatile("mrs %0, fpcr" : "=r"(control));
    __asm__ volatile("msr fpcr, %0" : : "r"(control | flushToZero));
#endif
}

} // namespace

Driver::Driver(uint32_t rate, uint32_t block, Process process)
    : rate_(rate), block_(block), process_(std::move(process)), load_(static_cast<double>(block) / rate) {}

Driver::~Driver() = default;

void Driver::start() {
    const std::lock_guard lock(threadMutex_);
    thread_.start();
    loaded_.store(true, std::memory_order_release);
}

void Driver::stop() noexcept {
    const std::lock_guard lock(threadMutex_);
    thread_.join();
    loaded_.store(false, std::memory_order_release);
}

void Driver::threadMain(const std::stop_token &stop) noexcept {
    becomeAudioThread();
    run(stop);
    threadId_.store(0, std::memory_order_relaxed);
}

void Driver::becomeAudioThread() noexcept {
    flushDenormalsInThisThread();
    threadId_.store(static_cast<uint32_t>(gettid()), std::memory_order_relaxed);
}

void Driver::processBlock(uint32_t wanted, double lateness) noexcept {
    blockBegan_.store(nanosecondsOf(CLOCK_REALTIME), std::memory_order_relaxed);
    blockStart_ = nanosecondsOf(CLOCK_MONOTONIC);
    blockLateness_ = lateness;
    process_(wanted);
    load_.add(secondsOf(nanosecondsOf(CLOCK_MONOTONIC) - blockStart_), lateness);
}

} // namespace sonetrix::dev

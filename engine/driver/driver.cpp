#include "driver/driver.h"

#include <cerrno>
#if defined(__x86_64__)
#include <immintrin.h>
#endif

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

void sleepUntil(int64_t monotonic) noexcept {
    const timespec deadline = timespecOf(monotonic);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline, nullptr) == EINTR) {
    }
}

} // namespace

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

int64_t Driver::processBlock(uint32_t wanted, int64_t due) noexcept {
    blockBegan_.store(nanosecondsOf(CLOCK_REALTIME), std::memory_order_relaxed);
    blockStart_ = nanosecondsOf(CLOCK_MONOTONIC);
    blockLateness_ = std::max<int64_t>(blockStart_ - due, 0);
    const int64_t end = process_(wanted, blockStart_);
    load_.add(secondsOf(end - blockStart_), secondsOf(blockLateness_));
    return end;
}

void ClockDriver::askForRealtimeScheduling() noexcept {
    constexpr int priority = 60;
    sched_param parameters{};
    parameters.sched_priority = priority;
    pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameters);
}

void ClockDriver::run(const std::stop_token &stop) noexcept {
    askForRealtimeScheduling();
    const int64_t block = format().block;
    const int64_t origin = nanosecondsOf(CLOCK_MONOTONIC); // every boundary is computed from it: exact for ever
    int64_t boundary = origin;
    for (int64_t frames = block; !stop.stop_requested(); frames += block) {
        const int64_t end = processBlock(format().block, boundary);
        boundary = origin + format().nanoseconds(frames);
        if (end > boundary) {
            countXrun();
            frames = (format().frames(end - origin) / block + 1) * block; // the first boundary after that
            boundary = origin + format().nanoseconds(frames);
        }
        sleepUntil(boundary);
    }
}

} // namespace sonetrix::dev

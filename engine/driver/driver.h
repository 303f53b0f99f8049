#pragma once

#include "clock.h"
#include "driver/cpu_load.h"
#include "graph/parameters.h"
#include "thread.h"

namespace sonetrix::dev {

/// Owns the audio thread and decides when it processes a block. A derived class stops the thread in its destructor.
class Driver {
public:
    /// Processes one whole block, of which the first `wanted` frames count; on the audio thread, where nothing waits,
    /// allocates or logs. The time on CLOCK_MONOTONIC, at the beginning and then at the end, comes and goes with it: to
    /// read it takes as long as a small plugin.
    using Process = std::function<int64_t(uint32_t wanted, int64_t time)>;

    Driver(const AudioFormat &format, Process process) : format_(format), process_(std::move(process)), load_(format) {}
    virtual ~Driver() = default;

    [[nodiscard]] virtual const char *name() const noexcept = 0;
    /// The engine's parameters that it has because of this driver.
    [[nodiscard]] virtual std::vector<Parameter> parameters() { return {}; }
    /// Throws std::system_error when there is no thread to be had.
    void start();
    /// Returns when the audio thread has ended. May be called repeatedly and from any other thread.
    void stop() noexcept;

    [[nodiscard]] bool isLoaded() const noexcept { return loaded_.load(std::memory_order_acquire); }
    [[nodiscard]] const AudioFormat &format() const noexcept { return format_; }
    [[nodiscard]] uint32_t xruns() const noexcept { return xruns_.load(std::memory_order_relaxed); }
    [[nodiscard]] CpuFigures cpuFigures() const noexcept { return load_.figures(); }
    /// When the current block began, in nanoseconds on CLOCK_REALTIME; 0 before the first.
    [[nodiscard]] int64_t blockBegan() const noexcept { return blockBegan_.load(std::memory_order_relaxed); }
    /// On the audio thread, of the current block: when it began on CLOCK_MONOTONIC and how late that was, in
    /// nanoseconds.
    [[nodiscard]] int64_t blockStart() const noexcept { return blockStart_; }
    [[nodiscard]] int64_t blockLateness() const noexcept { return blockLateness_; }
    /// The audio thread's id as the system knows it; 0 while there is none.
    [[nodiscard]] uint32_t threadId() const noexcept { return threadId_.load(std::memory_order_relaxed); }

protected:
    /// The audio thread's body; returns when a stop is requested.
    virtual void run(const std::stop_token &stop) noexcept = 0;
    /// For a body that has nothing to do: waits so long, or until it is to end.
    void pause(const std::stop_token &stop, std::chrono::milliseconds time) {
        thread_.pause(stop, Thread::Clock::now() + time);
    }

    /// On the thread that processes blocks, before the first one.
    void becomeAudioThread() noexcept;
    /// A block that was due at that time on CLOCK_MONOTONIC, if at any. The time when it is done.
    int64_t processBlock(uint32_t wanted, int64_t due = std::numeric_limits<int64_t>::max()) noexcept;
    void countXrun() noexcept { xruns_.fetch_add(1, std::memory_order_relaxed); }

private:
    void threadMain(const std::stop_token &stop) noexcept;

    const AudioFormat format_;
    const Process process_;
    CpuLoad load_;
    std::atomic<bool> loaded_{false};
    std::atomic<uint32_t> xruns_{0};
    std::atomic<uint32_t> threadId_{0};
    std::atomic<int64_t> blockBegan_{0};
    int64_t blockStart_ = 0;
    int64_t blockLateness_ = 0;
    std::mutex threadMutex_;
    Thread thread_{"sonetrix-audio", [this](const std::stop_token &stop) { threadMain(stop); }};
};

/// Real time without a sound card: blocks begin on a fixed grid of the monotonic clock, each due when the next begins.
/// A block that is not finished by then is an xrun; what was missed is left out, and the next block waits for its place
/// on the grid, so that a graph that is always too slow leaves the processor some time. The audio thread runs under
/// SCHED_FIFO where that is permitted.
class ClockDriver : public Driver {
public:
    using Driver::Driver;
    ~ClockDriver() override { stop(); }

    [[nodiscard]] const char *name() const noexcept override { return "clock"; }

protected:
    void run(const std::stop_token &stop) noexcept override;
    static void askForRealtimeScheduling() noexcept;
};

} // namespace sonetrix::dev

#pragma once

#include "driver/driver.h"

#include <cmath>

namespace sonetrix::dev {

/// Renders a given time as fast as the processor can, exactly reproducible: nothing depends on a clock, and an edit or
/// a parameter takes effect where the renderer stood when it was made.
///
/// It stands still until `render` asks for some seconds, which returns when they are done. Whatever is left of the
/// total is rendered as the driver stops, so that a script that only builds a graph need not ask. Rendering goes in
/// whole blocks, up to the end of the block that contains the last frame asked for; the next request goes on from
/// there, without rounding errors adding up. Of the last block only the frames within the total are wanted.
class OfflineDriver final : public Driver {
public:
    /// Called before each block, on the rendering thread, with what has been rendered so far. May wait.
    using Before = std::function<void(std::chrono::nanoseconds rendered)>;

    OfflineDriver(const AudioFormat &format, Process process, Before before, double totalSeconds)
        : Driver(format, std::move(process)), total_(framesIn(totalSeconds)), before_(std::move(before)) {}
    ~OfflineDriver() override { stop(); }

    [[nodiscard]] const char *name() const noexcept override { return "offline"; }

    /// False, and nothing is rendered, when there is less left than that.
    bool render(double seconds) {
        std::unique_lock lock(mutex_);
        if (!isLoaded() || ended_ || seconds * format().rate > static_cast<double>(total_ - asked_) + 0.5)
            return false;
        asked_ = std::min(asked_ + framesIn(seconds), total_);
        const int64_t goal = asked_;
        changed_.notify_all();
        changed_.wait(lock, [&] { return rendered_ >= goal; });
        return true;
    }
    /// Renders all the rest without waiting for it, and calls that function when it is done.
    void renderRest(std::function<void()> done) {
        const std::lock_guard lock(mutex_);
        asked_ = total_;
        done_ = std::move(done);
        changed_.notify_all();
    }
    /// What nobody has asked for yet.
    [[nodiscard]] double secondsLeft() const {
        const std::lock_guard lock(mutex_);
        return static_cast<double>(total_ - asked_) / format().rate;
    }

private:
    void run(const std::stop_token &stop) noexcept override {
        std::unique_lock lock(mutex_);
        while (!ended_) {
            changed_.wait(lock, stop, [this] { return rendered_ < asked_ || done_; });
            if (stop.stop_requested()) {
                asked_ = total_;
                ended_ = true;
            }
            while (rendered_ < asked_) {
                const auto wanted = std::min<int64_t>(format().block, total_ - rendered_);
                lock.unlock();
                before_(std::chrono::nanoseconds(format().nanoseconds(rendered_)));
                processBlock(static_cast<uint32_t>(wanted));
                lock.lock();
                rendered_ += format().block;
            }
            if (const auto done = std::exchange(done_, nullptr))
                done();
            changed_.notify_all();
        }
    }
    [[nodiscard]] int64_t framesIn(double seconds) const noexcept { return std::llround(seconds * format().rate); }

    const int64_t total_;
    const Before before_;
    mutable std::mutex mutex_;
    std::condition_variable_any changed_;
    int64_t asked_ = 0;
    int64_t rendered_ = 0;
    bool ended_ = false;
    std::function<void()> done_;
};

} // namespace sonetrix::dev

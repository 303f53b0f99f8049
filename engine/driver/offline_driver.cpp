#include "driver/offline_driver.h"

#include <algorithm>
#include <cmath>
#include <utility>

namespace sonetrix::dev {

OfflineDriver::OfflineDriver(const AudioFormat &format, Process process, Before before, double totalSeconds)
    : Driver(format, std::move(process)), total_(framesIn(totalSeconds)), before_(std::move(before)) {}

int64_t OfflineDriver::framesIn(double seconds) const noexcept { return std::llround(seconds * format().rate); }

bool OfflineDriver::render(double seconds) {
    std::unique_lock lock(mutex_);
    if (!isLoaded() || ended_ || seconds * format().rate > static_cast<double>(total_ - asked_) + 0.5)
        return false;
    asked_ = std::min(asked_ + framesIn(seconds), total_);
    const int64_t goal = asked_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return rendered_ >= goal; });
    return true;
}

void OfflineDriver::renderRest(std::function<void()> done) {
    const std::lock_guard lock(mutex_);
    asked_ = total_;
    done_ = std::move(done);
    changed_.notify_all();
}

double OfflineDriver::secondsLeft() const {
    const std::lock_guard lock(mutex_);
    return static_cast<double>(total_ - asked_) / format().rate;
}

void OfflineDriver::run(const std::stop_token &stop) noexcept {
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

} // namespace sonetrix::dev

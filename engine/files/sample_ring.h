#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <span>
#include <vector>

namespace sonetrix::dev {

/// Samples on their way from one thread to one other; neither ever waits.
class SampleRing {
public:
    explicit SampleRing(size_t capacity) : samples_(std::bit_ceil(capacity)) {}

    /// Producer: the room there is for certain.
    [[nodiscard]] size_t room() const noexcept {
        return samples_.size() - (written_.load(std::memory_order_relaxed) - read_.load(std::memory_order_acquire));
    }
    /// Consumer: the samples there are for certain.
    [[nodiscard]] size_t available() const noexcept {
        return written_.load(std::memory_order_acquire) - read_.load(std::memory_order_relaxed);
    }

    /// Producer: at most `room()` samples.
    void write(std::span<const float> samples) noexcept {
        const size_t position = written_.load(std::memory_order_relaxed);
        const size_t start = position & (samples_.size() - 1);
        const size_t untilEnd = std::min(samples.size(), samples_.size() - start);
        std::copy_n(samples.data(), untilEnd, samples_.data() + start);
        std::copy_n(samples.data() + untilEnd, samples.size() - untilEnd, samples_.data());
        written_.store(position + samples.size(), std::memory_order_release);
    }
    /// Consumer: at most `available()` samples.
    void read(std::span<float> samples) noexcept {
        const size_t position = read_.load(std::memory_order_relaxed);
        const size_t start = position & (samples_.size() - 1);
        const size_t untilEnd = std::min(samples.size(), samples_.size() - start);
        std::copy_n(samples_.data() + start, untilEnd, samples.data());
        std::copy_n(samples_.data(), samples.size() - untilEnd, samples.data() + untilEnd);
        read_.store(position + samples.size(), std::memory_order_release);
    }

private:
    std::vector<float> samples_;
    std::atomic<size_t> written_{0};
    std::atomic<size_t> read_{0};
};

} // namespace sonetrix::dev

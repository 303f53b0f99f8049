#pragma once

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <span>
#include <vector>

namespace sonetrix::dev {

/// Elements on their way from one thread to one other; neither ever waits.
template <class T> class Ring {
public:
    /// Before producer and consumer begin.
    void allocate(size_t capacity) { elements_.resize(std::bit_ceil(capacity)); }

    /// Producer: the room there is for certain.
    [[nodiscard]] size_t room() const noexcept {
        return elements_.size() - (written_.load(std::memory_order_relaxed) - read_.load(std::memory_order_acquire));
    }
    /// Consumer: how many there are for certain. Anybody else: how many there were a moment ago.
    [[nodiscard]] size_t available() const noexcept {
        const size_t start = nextRead();
        return written_.load(std::memory_order_acquire) - start;
    }
    /// What has been written up to now will not be read. One thread at a time.
    void discard() noexcept { discarded_.store(written_.load(std::memory_order_acquire), std::memory_order_release); }

    /// Producer: at most as many as there is room for.
    void write(std::span<const T> elements) noexcept {
        const size_t position = written_.load(std::memory_order_relaxed);
        const size_t start = position & (elements_.size() - 1);
        const size_t untilEnd = std::min(elements.size(), elements_.size() - start);
        std::copy_n(elements.data(), untilEnd, elements_.data() + start);
        std::copy_n(elements.data() + untilEnd, elements.size() - untilEnd, elements_.data());
        written_.store(position + elements.size(), std::memory_order_release);
    }
    /// Consumer: as many as there are, at most all that there is room for. Their number.
    size_t read(std::span<T> elements) noexcept {
        const size_t position = nextRead();
        const size_t count = std::min(elements.size(), written_.load(std::memory_order_acquire) - position);
        const size_t start = position & (elements_.size() - 1);
        const size_t untilEnd = std::min(count, elements_.size() - start);
        std::copy_n(elements_.data() + start, untilEnd, elements.data());
        std::copy_n(elements_.data(), count - untilEnd, elements.data() + untilEnd);
        read_.store(position + count, std::memory_order_release);
        return count;
    }

private:
    // The positions only grow, and by far too little to wrap round.
    [[nodiscard]] size_t nextRead() const noexcept {
        return std::max(read_.load(std::memory_order_acquire), discarded_.load(std::memory_order_acquire));
    }

    std::vector<T> elements_;
    std::atomic<size_t> written_{0};
    std::atomic<size_t> read_{0};
    std::atomic<size_t> discarded_{0};
};

} // namespace sonetrix::dev

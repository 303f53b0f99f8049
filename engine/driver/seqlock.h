#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstdint>
#include <type_traits>

namespace sonetrix::dev {

/// A record that one thread writes without ever waiting and any other reads whole.
template <class T> class Seqlock {
    static_assert(std::is_trivially_copyable_v<T> && sizeof(T) % sizeof(uint32_t) == 0);
    using Words = std::array<uint32_t, sizeof(T) / sizeof(uint32_t)>;

public:
    void store(const T &record) noexcept {
        const auto words = std::bit_cast<Words>(record);
        const uint32_t sequence = sequence_.load(std::memory_order_relaxed);
        sequence_.store(sequence + 1, std::memory_order_relaxed);
        for (size_t i = 0; i < words.size(); ++i)
            words_[i].store(words[i], std::memory_order_release); // whoever sees it sees the odd sequence number too
        sequence_.store(sequence + 2, std::memory_order_release);
    }

    [[nodiscard]] T load() const noexcept {
        Words words;
        for (;;) {
            const uint32_t before = sequence_.load(std::memory_order_acquire);
            for (size_t i = 0; i < words.size(); ++i)
                words[i] = words_[i].load(std::memory_order_acquire);
            if (before % 2 == 0 && sequence_.load(std::memory_order_relaxed) == before)
                return std::bit_cast<T>(words);
        }
    }

private:
    std::atomic<uint32_t> sequence_{0};
    std::array<std::atomic<uint32_t>, sizeof(T) / sizeof(uint32_t)> words_{};
};

} // namespace sonetrix::dev

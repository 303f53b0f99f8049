#pragma once

#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace sonetrix::dev {

/// The driver's load over the last second (the last ten finished spans of a tenth of a second each). Zero, but for the
/// budget, until the first span is finished.
struct CpuFigures {
    float usageMean = 0;     ///< mean time per block, in percent of the budget
    float usagePeakMean = 0; ///< mean of the spans' longest blocks, in percent of the budget
    float timeMean = 0;      ///< mean time per block, in seconds
    float timePeak = 0;      ///< the longest block, in seconds
    float budget = 0;        ///< the time that a block may take at most: its duration, in seconds
    float latenessPeak = 0;  ///< how late a block began at worst, in seconds
};

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

/// Collects the figures. `add` belongs to the audio thread, `figures` to everybody.
class CpuLoad {
public:
    explicit CpuLoad(double budget);

    void add(double processing, double lateness) noexcept;
    [[nodiscard]] CpuFigures figures() const noexcept { return published_.load(); }

private:
    struct Span {
        uint32_t blocks = 0;
        double sum = 0;
        double peak = 0;
        double lateness = 0;
    };

    void publish() noexcept;

    const double budget_;
    const uint32_t blocksPerSpan_;
    Span current_;
    std::array<Span, 10> finished_;
    size_t next_ = 0;
    Seqlock<CpuFigures> published_;
};

} // namespace sonetrix::dev

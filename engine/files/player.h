#pragma once

#include "files/sample_ring.h"
#include "files/sound_file.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

namespace sonetrix::dev {

/// A sound file on its way to the capture ports, begun and ended at will: channel n to port n, silence where there is
/// no channel and after the end. Somebody calls `pump` every few milliseconds.
class Player {
public:
    Player(uint32_t rate, uint32_t block) : rate_(rate), block_(block * channelCount) {}

    /// Plays this file from its beginning; an empty path ends what plays. Throws std::runtime_error when the file
    /// cannot serve: it must have the engine's frame rate.
    void open(const std::filesystem::path &path);
    /// The file that plays; empty when there is none any more.
    [[nodiscard]] std::string file() const;
    /// Reads ahead.
    void pump() noexcept;
    /// Audio thread: the next frames, channel by channel. False when nothing is played.
    bool read(std::array<float *, channelCount> outputs, uint32_t frames) noexcept;
    /// Frames that were silent because reading ahead was too slow.
    [[nodiscard]] uint32_t framesMissed() const noexcept { return missed_.load(std::memory_order_relaxed); }

private:
    void readAhead() noexcept;

    const uint32_t rate_;
    mutable std::mutex mutex_; // of those who open and pump
    std::string name_;
    SoundFile file_;
    SF_INFO info_{};
    std::vector<float> fromFile_;
    std::vector<float> interleaved_;
    SampleRing ring_;
    std::vector<float> block_; // the audio thread's
    std::atomic<bool> playing_{false};
    std::atomic<bool> ended_{true}; // all of the file is in the ring
    std::atomic<uint32_t> missed_{0};
};

} // namespace sonetrix::dev

#pragma once

#include "files/sample_ring.h"
#include "files/sound_file.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

namespace sonetrix::dev {

/// What the playback ports get, on its way to a sound file, begun and ended at will. Somebody calls `pump` every few
/// milliseconds.
///
/// A file that there is already stays until its successor is whole, which is called NAME.partial until then. The file
/// can be read at any time up to about the last second: its header follows what is written.
class Recorder {
public:
    Recorder(uint32_t rate, uint32_t block) : rate_(rate), block_(block * channelCount) {}
    ~Recorder() { close(); }
    Recorder(const Recorder &) = delete;
    Recorder &operator=(const Recorder &) = delete;

    /// Records into this file from now on, and completes the one before; an empty path only does that. Throws
    /// std::runtime_error when the file cannot be made.
    void open(const std::filesystem::path &path);
    /// The file that is being recorded; empty when there is none.
    [[nodiscard]] std::string file() const;
    /// Writes what has come in.
    void pump() noexcept;
    /// Audio thread: the next frames, channel by channel.
    void write(const float *const *inputs, uint32_t frames) noexcept;
    /// Writes the rest and completes the file.
    void close() noexcept;
    /// Frames that are missing because writing was too slow or failed.
    [[nodiscard]] uint32_t framesDropped() const noexcept { return dropped_.load(std::memory_order_relaxed); }
    /// Whether a recording has been cut short.
    [[nodiscard]] bool hasFailed() const noexcept { return hasFailed_.load(std::memory_order_relaxed); }

private:
    void writeOut() noexcept;
    void complete() noexcept;
    void fail(const std::string &reason) noexcept;

    const uint32_t rate_;
    mutable std::mutex mutex_; // of those who open, close and pump
    std::filesystem::path path_;
    std::filesystem::path writtenPath_;
    SoundFile file_;
    bool cutShort_ = false;
    uint32_t sinceHeader_ = 0; // frames
    std::vector<float> chunk_;
    SampleRing ring_;
    std::vector<float> block_; // the audio thread's
    std::atomic<bool> recording_{false};
    std::atomic<uint32_t> dropped_{0};
    std::atomic<bool> hasFailed_{false};
};

} // namespace sonetrix::dev

#pragma once

#include "clock.h"
#include "files/ring.h"

#include <array>
#include <filesystem>
#include <memory>
#include <mutex>
#include <sndfile.hh>
#include <string>

namespace sonetrix::dev {

constexpr size_t channelCount = 2; // of the sound files that are played and recorded, and of a sound device
using Frame = std::array<float, channelCount>;

/// Frames on their way between a sound file and the audio thread, which reads or writes a ring. Somebody calls `pump`
/// of what derives from this every few milliseconds, as long as it is busy.
class FileStream {
public:
    explicit FileStream(const AudioFormat &format) : rate_(format.rate), block_(format.block) {}

    /// Frames that are missing because the file was too slow, or failed.
    [[nodiscard]] uint32_t framesLost() const noexcept { return lost_.load(std::memory_order_relaxed); }

protected:
    ~FileStream() = default;

    /// With the mutex held: makes room, and forgets the frames of the file before.
    void prepare();
    void lose(size_t frames) noexcept {
        if (frames != 0)
            lost_.fetch_add(static_cast<uint32_t>(frames), std::memory_order_relaxed);
    }

    static constexpr size_t chunkFrames = 1024;

    const uint32_t rate_;
    mutable std::mutex mutex_; // of those who open, close and pump
    std::filesystem::path path_;
    std::unique_ptr<SndfileHandle> file_;
    std::vector<Frame> chunk_; // between file and ring
    Ring<Frame> ring_;
    std::vector<Frame> block_; // the audio thread's
    std::atomic<bool> active_{false};

private:
    std::atomic<uint32_t> lost_{0};
};

/// A sound file on its way to the capture ports, begun and ended at will: channel n to port n, silence where there is
/// no channel and after the end.
class Player : public FileStream {
public:
    using FileStream::FileStream;

    /// Plays this file from its beginning; an empty path ends what plays. Throws std::runtime_error when the file
    /// cannot serve: it must have the engine's frame rate.
    void open(const std::filesystem::path &path);
    /// The file that plays; empty when there is none any more.
    [[nodiscard]] std::string file() const;
    [[nodiscard]] bool isBusy() const noexcept { return !ended_.load(std::memory_order_acquire); }
    /// Reads ahead.
    void pump() noexcept;
    /// Audio thread: the next frames, channel by channel. False when nothing is played.
    bool read(std::array<float *, channelCount> outputs, uint32_t frames) noexcept;

private:
    void readAhead() noexcept;

    size_t fileChannels_ = 0;
    std::vector<float> fromFile_;
    std::atomic<bool> ended_{true}; // all of the file is in the ring
};

/// What the playback ports get, on its way to a sound file, begun and ended at will.
///
/// A file that there is already stays until its successor is whole, which is called NAME.partial until then. The file
/// can be read at any time up to about the last second: its header follows what is written.
class Recorder : public FileStream {
public:
    using FileStream::FileStream;
    ~Recorder() { open({}); }

    /// Records into this file from now on, and completes the one before; an empty path only does that. Throws
    /// std::runtime_error when the file cannot be made.
    void open(const std::filesystem::path &path);
    /// The file that is being recorded; empty when there is none.
    [[nodiscard]] std::string file() const;
    [[nodiscard]] bool isBusy() const noexcept { return active_.load(std::memory_order_acquire); }
    /// Writes what has come in.
    void pump() noexcept;
    /// Audio thread: the next frames, channel by channel.
    void write(const float *const *inputs, uint32_t frames) noexcept;
    /// Whether a recording has been cut short.
    [[nodiscard]] bool hasFailed() const noexcept { return hasFailed_.load(std::memory_order_relaxed); }

private:
    void writeOut() noexcept;
    void complete() noexcept;
    void fail(const char *reason) noexcept;

    std::filesystem::path writtenPath_;
    bool cutShort_ = false;
    size_t sinceHeader_ = 0; // frames
    std::atomic<bool> hasFailed_{false};
};

} // namespace sonetrix::dev

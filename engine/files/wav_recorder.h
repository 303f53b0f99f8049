#pragma once

#include "files/file_thread.h"
#include "files/sample_ring.h"
#include "files/sound_file.h"

#include <atomic>
#include <cstdint>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

namespace sonetrix::dev {

/// What the playback ports get, on its way to a WAV file of 32-bit floats; the same samples make the same file.
class WavRecorder {
public:
    static constexpr size_t channels = 2;

    /// Throws std::runtime_error when the file cannot be made.
    WavRecorder(const std::filesystem::path &path, uint32_t rate);
    ~WavRecorder() { close(); }
    WavRecorder(const WavRecorder &) = delete;
    WavRecorder &operator=(const WavRecorder &) = delete;

    /// From here on a thread of its own writes. Without that, somebody calls `pump` in time.
    void startThread();
    /// Writes what has come in.
    void pump() noexcept;
    /// Audio thread: the next interleaved samples.
    void write(std::span<const float> interleaved) noexcept;
    /// Writes the rest and closes the file. Nothing is written from then on. Not beside `write`.
    void close() noexcept;
    /// Frames that are missing because writing was too slow.
    [[nodiscard]] uint32_t framesDropped() const noexcept { return dropped_.load(std::memory_order_relaxed); }

private:
    SoundFile file_;
    SampleRing ring_;
    std::vector<float> chunk_;
    bool failed_ = false;
    std::atomic<uint32_t> dropped_{0};
    std::mutex closeMutex_;
    std::optional<FileThread> thread_;
};

} // namespace sonetrix::dev

#pragma once

#include "files/file_thread.h"
#include "files/sample_ring.h"
#include "files/sound_file.h"

#include <atomic>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace sonetrix::dev {

/// A sound file on its way to the capture ports: channel n to port n, silence where there is no channel and after the
/// end. The file must have the engine's frame rate.
class WavInput {
public:
    static constexpr size_t channels = 2;

    /// Throws std::runtime_error when the file cannot serve.
    WavInput(const std::filesystem::path &path, uint32_t rate);

    /// From here on a thread of its own reads ahead. Without that, somebody calls `pump` in time.
    void startThread();
    /// Reads ahead as far as there is room.
    void pump() noexcept;
    /// Audio thread: the next interleaved samples.
    void read(std::span<float> interleaved) noexcept;
    /// Frames that were silent because reading ahead was too slow.
    [[nodiscard]] uint32_t framesMissed() const noexcept { return missed_.load(std::memory_order_relaxed); }

private:
    SF_INFO info_{};
    SoundFile file_;
    SampleRing ring_;
    std::vector<float> fromFile_;
    std::vector<float> interleaved_;
    std::atomic<bool> ended_{false};
    std::atomic<uint32_t> missed_{0};
    std::optional<FileThread> thread_; // the last: ends before what it uses
};

} // namespace sonetrix::dev

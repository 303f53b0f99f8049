#pragma once

#include "clock.h"
#include "files/file_streams.h"
#include "graph/module.h"
#include "thread.h"

namespace sonetrix::dev {

/// What a sound device brings and takes in a block, channel by channel; null where it has no such channel.
struct DeviceBuffers {
    std::array<const float *, channelCount> captured{};
    std::array<float *, channelCount> played{};
};

/// What went through a port in a block: the highest magnitude, and the mean of the squares, which a sample that is not
/// a number makes such. Full scale is 1.
struct PortLevel {
    float peak = 0;
    float meanSquare = 0;
};

/// The driver's own module: its capture ports are sources, its playback ports sinks. They carry what a sound device
/// captures and plays, if that drives the engine. A sound file can be played into the ones, instead of what is
/// captured, and what the others get be recorded, at any time.
class SystemModule final : public Module {
public:
    static constexpr const char *moduleName = "system";
    /// Of a block: the capture ports, then the playback ports.
    using Levels = std::array<PortLevel, 2 * channelCount>;

    /// `offline`: the audio thread itself reads and writes the files, as it may when nothing happens in real time.
    SystemModule(const AudioFormat &format, bool offline);

    // Both begin and, for an empty path, end it; they throw std::runtime_error.
    void play(const std::filesystem::path &path);
    void record(const std::filesystem::path &path);

    /// Audio thread, before the first module of a block.
    void capture(uint32_t frames) noexcept;
    /// Audio thread, after the last: records the first `wanted` frames of what the playback ports get.
    void process(const float *const *inputs, uint32_t frames) noexcept override;
    void setWanted(uint32_t frames) noexcept { wanted_ = frames; }
    /// Audio thread: the last block's.
    [[nodiscard]] const Levels &levels() const noexcept { return levels_; }

    /// The device's, while there is one.
    DeviceBuffers &deviceBuffers() noexcept { return deviceBuffers_; }
    [[nodiscard]] const Player &player() const noexcept { return player_; }
    [[nodiscard]] const Recorder &recorder() const noexcept { return recorder_; }

private:
    void checkDistinct(const std::filesystem::path &played, const std::filesystem::path &recorded) const;
    void wakeFileThread() {
        const std::lock_guard lock(fileMutex_);
        fileOpened_.notify_all();
    }
    void fileRound(const std::stop_token &stop);

    const bool offline_;
    uint32_t wanted_;
    DeviceBuffers deviceBuffers_;
    Levels levels_;
    bool isSilent_ = true; // what the capture ports carry
    Player player_;
    Recorder recorder_;
    std::mutex fileMutex_; // of nothing but the file thread's rest
    std::condition_variable_any fileOpened_;
    // Reads and writes the files, while there are any: the audio thread must not even wake somebody.
    Thread thread_{"sonetrix-file", [this](const std::stop_token &stop) { fileRound(stop); }};
};

} // namespace sonetrix::dev

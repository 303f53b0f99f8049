#pragma once

#include "files/wav_input.h"
#include "files/wav_recorder.h"
#include "graph/module.h"
#include "graph/port_level.h"

#include <array>
#include <memory>

namespace sonetrix::dev {

/// The driver's own module: its capture ports are sources, its playback ports sinks. A sound file takes the place of
/// the converters at either end.
class SystemModule final : public Module {
public:
    static constexpr const char *moduleName = "system";
    static constexpr size_t channels = 2;
    /// Of a block: the capture ports, then the playback ports.
    using Levels = std::array<PortLevel, 2 * channels>;

    /// Input and recorder may be null. `direct`: the audio thread itself reads and writes the files, as it may when
    /// nothing happens in real time.
    SystemModule(uint32_t block, std::unique_ptr<WavInput> input, std::unique_ptr<WavRecorder> recorder, bool direct);

    /// Audio thread, before the first module of a block.
    void capture(uint32_t frames) noexcept;
    /// Audio thread, after the last: records the first `wanted()` frames of what the playback ports get.
    void process(const float *const *inputs, uint32_t frames) noexcept override;
    void setWanted(uint32_t frames) noexcept { wanted_ = frames; }
    /// Audio thread: the last block's.
    [[nodiscard]] const Levels &levels() const noexcept { return levels_; }

    /// Completes the recording. Only once the audio thread has ended.
    void close() noexcept;

    [[nodiscard]] uint32_t framesMissed() const noexcept { return input_ ? input_->framesMissed() : 0; }
    [[nodiscard]] uint32_t framesDropped() const noexcept { return recorder_ ? recorder_->framesDropped() : 0; }

private:
    const std::unique_ptr<WavInput> input_;
    const std::unique_ptr<WavRecorder> recorder_;
    const bool direct_;
    uint32_t wanted_;
    Levels levels_;
    std::vector<float> interleaved_;
};

} // namespace sonetrix::dev

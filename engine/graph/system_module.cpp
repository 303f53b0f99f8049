#include "graph/system_module.h"

#include <algorithm>
#include <span>
#include <utility>

namespace sonetrix::dev {

SystemModule::SystemModule(
    uint32_t block, std::unique_ptr<WavInput> input, std::unique_ptr<WavRecorder> recorder, bool direct)
    : Module(moduleName, Type::driver, {"capture_1", "capture_2"}, {"playback_1", "playback_2"}, block),
      input_(std::move(input)),
      recorder_(std::move(recorder)),
      direct_(direct),
      wanted_(block),
      interleaved_(channels * block) {
    static_assert(WavInput::channels == channels && WavRecorder::channels == channels);
}

void SystemModule::capture(uint32_t frames) noexcept {
    if (!input_)
        return;
    if (direct_)
        input_->pump();
    input_->read(std::span(interleaved_).first(frames * channels));
    for (size_t channel = 0; channel < channels; ++channel) {
        float *out = output(channel);
        for (size_t i = 0; i < frames; ++i)
            out[i] = interleaved_[i * channels + channel];
        levels_[channel] = levelOf(std::span<const float>(out, frames));
    }
}

void SystemModule::process(const float *const *inputs, uint32_t frames) noexcept {
    for (size_t channel = 0; channel < channels; ++channel)
        levels_[channels + channel] = levelOf(std::span(inputs[channel], frames));
    if (!recorder_)
        return;
    const uint32_t count = std::min(frames, wanted_);
    for (size_t channel = 0; channel < channels; ++channel)
        for (size_t i = 0; i < count; ++i)
            interleaved_[i * channels + channel] = inputs[channel][i];
    recorder_->write(std::span<const float>(interleaved_).first(count * channels));
    if (direct_)
        recorder_->pump();
}

void SystemModule::close() noexcept {
    if (recorder_)
        recorder_->close();
}

} // namespace sonetrix::dev

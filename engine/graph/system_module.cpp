#include "graph/system_module.h"

#include <algorithm>
#include <span>
#include <stdexcept>
#include <system_error>

namespace sonetrix::dev {

SystemModule::SystemModule(uint32_t rate, uint32_t block, bool offline)
    : Module(moduleName, Type::driver, {"capture_1", "capture_2"}, {"playback_1", "playback_2"}, block),
      offline_(offline),
      wanted_(block),
      interleaved_(channels * block),
      player_(rate),
      recorder_(rate) {
    static_assert(
        Player::channels == channels && Recorder::channels == channels && DeviceBuffers::channels == channels);
}

void SystemModule::play(const std::filesystem::path &path) {
    checkDistinct(path, recorder_.file());
    player_.open(path);
    startThread();
}

void SystemModule::record(const std::filesystem::path &path) {
    checkDistinct(player_.file(), path);
    recorder_.open(path);
    startThread();
}

void SystemModule::checkDistinct(const std::filesystem::path &played, const std::filesystem::path &recorded) const {
    std::error_code missing;
    if (std::filesystem::equivalent(played, recorded, missing))
        throw std::runtime_error(recorded.string() + " cannot be played and recorded at once");
}

void SystemModule::startThread() {
    if (offline_)
        return;
    std::call_once(threadStarted_, [this] {
        thread_.start("sonetrix-file", [this](const std::stop_token &stop) {
            player_.pump();
            recorder_.pump();
            thread_.pause(stop, Thread::Clock::now() + std::chrono::milliseconds(10));
        });
    });
}

void SystemModule::capture(uint32_t frames) noexcept {
    if (offline_)
        player_.pump();
    const auto samples = std::span(interleaved_).first(frames * channels);
    const bool plays = player_.read(samples);
    for (size_t channel = 0; channel < channels; ++channel) {
        float *out = output(channel);
        if (plays) {
            for (size_t i = 0; i < frames; ++i)
                out[i] = samples[i * channels + channel];
        } else if (const float *captured = deviceBuffers_.captured[channel]) {
            std::copy_n(captured, frames, out);
        } else {
            std::fill_n(out, frames, 0.0F);
        }
        levels_[channel] = levelOf(std::span<const float>(out, frames));
    }
}

void SystemModule::process(const float *const *inputs, uint32_t frames) noexcept {
    const uint32_t count = std::min(frames, wanted_);
    for (size_t channel = 0; channel < channels; ++channel) {
        levels_[channels + channel] = levelOf(std::span(inputs[channel], frames));
        if (float *played = deviceBuffers_.played[channel])
            std::copy_n(inputs[channel], frames, played);
        for (size_t i = 0; i < count; ++i)
            interleaved_[i * channels + channel] = inputs[channel][i];
    }
    recorder_.write(std::span<const float>(interleaved_).first(count * channels));
    if (offline_)
        recorder_.pump();
}

std::vector<Parameter> SystemModule::parameters() {
    const Domain fileName{SONETRIX_VALUE_STRING};
    return {
        {"play.file", [this] { return Value(valueRecord(player_.file())); }, fileName,
            [this](const sonetrix_value_t &path) { play(path.as.string); }},
        readOnlyParameter("play.missed", [this] { return player_.framesMissed(); }),
        {"record.file", [this] { return Value(valueRecord(recorder_.file())); }, fileName,
            [this](const sonetrix_value_t &path) { record(path.as.string); }},
        readOnlyParameter("record.dropped", [this] { return recorder_.framesDropped(); }),
    };
}

} // namespace sonetrix::dev

#include "graph/system_module.h"

#include <cmath>
#include <stdexcept>
#include <system_error>

namespace sonetrix::dev {

namespace {

PortLevel levelOf(const float *samples, uint32_t count) noexcept {
    float peak = 0;
    float squares = 0;
    // Several samples at a time: otherwise each addition would wait for the one before.
#pragma omp simd reduction(max : peak) reduction(+ : squares)
    for (uint32_t i = 0; i < count; ++i) {
        peak = std::max(peak, std::abs(samples[i])); // passes over what is no number
        squares += samples[i] * samples[i];
    }
    return {peak, squares / static_cast<float>(count)};
}

} // namespace

SystemModule::SystemModule(const AudioFormat &format, bool offline)
    : Module(moduleName, {"capture_1", "capture_2"}, {"playback_1", "playback_2"}, format.block),
      offline_(offline),
      wanted_(format.block),
      player_(format),
      recorder_(format) {
    if (!offline)
        thread_.start();
}

void SystemModule::play(const std::filesystem::path &path) {
    checkDistinct(path, recorder_.file());
    player_.open(path);
    wakeFileThread();
}

void SystemModule::record(const std::filesystem::path &path) {
    checkDistinct(player_.file(), path);
    recorder_.open(path);
    wakeFileThread();
}

void SystemModule::checkDistinct(const std::filesystem::path &played, const std::filesystem::path &recorded) const {
    std::error_code missing;
    if (std::filesystem::equivalent(played, recorded, missing))
        throw std::runtime_error(recorded.string() + " cannot be played and recorded at once");
}

void SystemModule::fileRound(const std::stop_token &stop) {
    std::unique_lock lock(fileMutex_);
    fileOpened_.wait(lock, stop, [this] { return player_.isBusy() || recorder_.isBusy(); });
    lock.unlock();
    player_.pump();
    recorder_.pump();
    thread_.pause(stop, Thread::Clock::now() + std::chrono::milliseconds(10));
}

void SystemModule::capture(uint32_t frames) noexcept {
    if (offline_)
        player_.pump();
    const bool plays = player_.read({output(0), output(1)}, frames);
    const bool wasSilent = std::exchange(isSilent_, !plays && deviceBuffers_.captured == DeviceBuffers().captured);
    for (size_t channel = 0; channel < channelCount && !(isSilent_ && wasSilent); ++channel) {
        float *out = output(channel);
        if (const float *captured = deviceBuffers_.captured[channel]; captured != nullptr && !plays)
            std::copy_n(captured, frames, out);
        else if (!plays)
            std::fill_n(out, frames, 0.0F);
        levels_[channel] = levelOf(out, frames);
    }
}

void SystemModule::process(const float *const *inputs, uint32_t frames) noexcept {
    for (size_t channel = 0; channel < channelCount; ++channel) {
        levels_[channelCount + channel] = levelOf(inputs[channel], frames);
        if (float *played = deviceBuffers_.played[channel])
            std::copy_n(inputs[channel], frames, played);
    }
    recorder_.write(inputs, std::min(frames, wanted_));
    if (offline_)
        recorder_.pump();
}

} // namespace sonetrix::dev

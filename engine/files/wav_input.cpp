#include "files/wav_input.h"

#include <algorithm>
#include <stdexcept>
#include <string>

namespace sonetrix::dev {

namespace {
constexpr size_t framesPerRead = 1024;
}

WavInput::WavInput(const std::filesystem::path &path, uint32_t rate)
    : file_(openSoundFile(path, SFM_READ, info_)),
      ring_(channels * (rate + framesPerRead)),
      fromFile_(framesPerRead * static_cast<size_t>(info_.channels)),
      interleaved_(framesPerRead * channels) {
    if (info_.samplerate != static_cast<int>(rate))
        throw std::runtime_error(path.string() + ": has " + std::to_string(info_.samplerate) +
                                 " frames per second, the engine " + std::to_string(rate));
    pump();
}

void WavInput::startThread() {
    thread_.emplace([this] { pump(); });
}

void WavInput::pump() noexcept {
    const auto fileChannels = static_cast<size_t>(info_.channels);
    const size_t used = std::min(channels, fileChannels);
    while (!ended_.load(std::memory_order_relaxed) && ring_.room() >= interleaved_.size()) {
        const auto frames =
            static_cast<size_t>(std::max<sf_count_t>(0, sf_readf_float(file_.get(), fromFile_.data(), framesPerRead)));
        for (size_t frame = 0; frame < frames; ++frame)
            for (size_t channel = 0; channel < used; ++channel)
                interleaved_[frame * channels + channel] = fromFile_[frame * fileChannels + channel];
        ring_.write(std::span<const float>(interleaved_).first(frames * channels));
        if (frames < framesPerRead)
            ended_.store(true, std::memory_order_release);
    }
}

void WavInput::read(std::span<float> interleaved) noexcept {
    const bool ended = ended_.load(std::memory_order_acquire);
    const size_t count = std::min(interleaved.size(), ring_.available());
    ring_.read(interleaved.first(count));
    std::ranges::fill(interleaved.subspan(count), 0.0F);
    if (!ended && count < interleaved.size())
        missed_.fetch_add(static_cast<uint32_t>((interleaved.size() - count) / channels), std::memory_order_relaxed);
}

} // namespace sonetrix::dev

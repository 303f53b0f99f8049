#include "files/player.h"

#include <algorithm>
#include <stdexcept>

namespace sonetrix::dev {

namespace {
constexpr size_t framesPerRead = 1024;
}

void Player::open(const std::filesystem::path &path) {
    SF_INFO info{};
    SoundFile file;
    if (!path.empty()) {
        file = openSoundFile(path, info);
        if (info.samplerate != static_cast<int>(rate_))
            throw std::runtime_error(path.string() + ": has " + std::to_string(info.samplerate) +
                                     " frames per second, the engine " + std::to_string(rate_));
    }
    const std::lock_guard lock(mutex_);
    if (interleaved_.empty()) {
        ring_.allocate(2 * channelCount * rate_); // twice what is read ahead: what is discarded may still be in it
        interleaved_.resize(framesPerRead * channelCount);
    }
    ring_.discard();
    name_ = path;
    file_ = std::move(file);
    info_ = info;
    fromFile_.resize(framesPerRead * static_cast<size_t>(info.channels));
    ended_.store(!file_, std::memory_order_release);
    readAhead();
    playing_.store(file_ != nullptr, std::memory_order_release);
}

std::string Player::file() const {
    const std::lock_guard lock(mutex_);
    return ended_ && ring_.available() == 0 ? "" : name_;
}

void Player::pump() noexcept {
    if (ended_.load(std::memory_order_acquire))
        return;
    const std::lock_guard lock(mutex_);
    readAhead();
}

void Player::readAhead() noexcept {
    const auto fileChannels = static_cast<size_t>(info_.channels);
    const size_t used = std::min(channelCount, fileChannels);
    while (!ended_ && ring_.available() < channelCount * rate_ && ring_.room() >= interleaved_.size()) {
        const auto frames =
            static_cast<size_t>(std::max<sf_count_t>(0, sf_readf_float(file_.get(), fromFile_.data(), framesPerRead)));
        for (size_t frame = 0; frame < frames; ++frame)
            for (size_t channel = 0; channel < used; ++channel)
                interleaved_[frame * channelCount + channel] = fromFile_[frame * fileChannels + channel];
        ring_.write(std::span<const float>(interleaved_).first(frames * channelCount));
        if (frames < framesPerRead)
            ended_.store(true, std::memory_order_release);
    }
}

bool Player::read(std::array<float *, channelCount> outputs, uint32_t frames) noexcept {
    if (!playing_.load(std::memory_order_acquire))
        return false;
    const bool ended = ended_.load(std::memory_order_acquire);
    const auto samples = std::span(block_).first(frames * channelCount);
    const size_t count = ring_.read(samples);
    std::ranges::fill(samples.subspan(count), 0.0F);
    for (size_t i = 0; i < samples.size(); ++i)
        outputs[i % channelCount][i / channelCount] = samples[i];
    if (!ended && count < samples.size())
        missed_.fetch_add(static_cast<uint32_t>((samples.size() - count) / channelCount), std::memory_order_relaxed);
    return true;
}

} // namespace sonetrix::dev

#include "files/file_streams.h"

#include "sonetrix/engine_api.h"

#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace sonetrix::dev {

namespace {

// RF64 is plain WAV until it is larger than that can be.
constexpr std::array<std::pair<std::string_view, int>, 8> formats{{
    {"", SF_FORMAT_RF64 | SF_FORMAT_FLOAT},
    {".wav", SF_FORMAT_RF64 | SF_FORMAT_FLOAT},
    {".w64", SF_FORMAT_W64 | SF_FORMAT_FLOAT},
    {".aiff", SF_FORMAT_AIFF | SF_FORMAT_FLOAT},
    {".au", SF_FORMAT_AU | SF_FORMAT_FLOAT},
    {".caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT},
    {".flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
    {".ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
}};

int formatOf(const std::filesystem::path &name) {
    const std::string ending = name.extension();
    for (const auto &[known, format] : formats)
        if (ending == known)
            return format;
    std::string endings;
    for (const auto &[known, format] : formats)
        endings += (known.empty() ? "" : " ") + std::string(known);
    throw std::runtime_error(name.string() + ": a recording's name ends in one of" + endings);
}

/// Others may wait for a peer, as pipes do, or are not to be replaced.
void checkRegular(const std::filesystem::path &path) {
    if (std::filesystem::exists(path) && !std::filesystem::is_regular_file(path))
        throw std::runtime_error(path.string() + ": is not a regular file");
}

using SoundFile = std::unique_ptr<SndfileHandle>;

/// To be read; with a format, one that is made or replaced.
SoundFile openSoundFile(const std::filesystem::path &path, uint32_t rate, int format = 0) {
    checkRegular(path);
    auto file = std::make_unique<SndfileHandle>(path.string(), format == 0 ? SFM_READ : SFM_WRITE, format,
        static_cast<int>(channelCount), static_cast<int>(rate));
    if (file->rawHandle() == nullptr)
        throw std::runtime_error(path.string() + ": " + sf_strerror(nullptr));
    return file;
}

} // namespace

void FileStream::prepare() {
    if (chunk_.empty()) {
        ring_.allocate(size_t{2} * rate_); // twice what is read ahead: what is discarded may still be in it
        chunk_.resize(chunkFrames);
    }
    ring_.discard();
}

void Player::open(const std::filesystem::path &path) {
    SoundFile file;
    if (!path.empty()) {
        file = openSoundFile(path, rate_);
        if (file->samplerate() != static_cast<int>(rate_))
            throw std::runtime_error(path.string() + ": has " + std::to_string(file->samplerate()) +
                                     " frames per second, the engine " + std::to_string(rate_));
    }
    const std::lock_guard lock(mutex_);
    prepare();
    path_ = path;
    file_ = std::move(file);
    fileChannels_ = file_ ? static_cast<size_t>(file_->channels()) : 0;
    fromFile_.resize(chunkFrames * fileChannels_);
    ended_.store(!file_, std::memory_order_release);
    readAhead();
    active_.store(file_ != nullptr, std::memory_order_release);
}

std::string Player::file() const {
    const std::lock_guard lock(mutex_);
    return ended_ && ring_.available() == 0 ? "" : path_;
}

void Player::pump() noexcept {
    if (!isBusy())
        return;
    const std::lock_guard lock(mutex_);
    readAhead();
}

void Player::readAhead() noexcept {
    while (!ended_ && ring_.available() < rate_ && ring_.room() >= chunkFrames) {
        const sf_count_t read = file_->readf(fromFile_.data(), chunkFrames);
        const auto frames = static_cast<size_t>(std::max<sf_count_t>(0, read));
        for (size_t frame = 0; frame < frames; ++frame) {
            chunk_[frame] = {};
            std::copy_n(&fromFile_[frame * fileChannels_], std::min(channelCount, fileChannels_), chunk_[frame].data());
        }
        ring_.write(std::span(chunk_).first(frames));
        if (frames < chunkFrames)
            ended_.store(true, std::memory_order_release);
    }
}

bool Player::read(std::array<float *, channelCount> outputs, uint32_t frames) noexcept {
    if (!active_.load(std::memory_order_acquire))
        return false;
    const bool ended = ended_.load(std::memory_order_acquire);
    const size_t count = ring_.read(std::span(block_).first(frames));
    std::fill_n(block_.begin() + static_cast<ptrdiff_t>(count), frames - count, Frame{});
    for (size_t channel = 0; channel < channelCount; ++channel)
        for (size_t frame = 0; frame < frames; ++frame)
            outputs[channel][frame] = block_[frame][channel];
    if (!ended)
        lose(frames - count);
    return true;
}

void Recorder::open(const std::filesystem::path &path) {
    const std::lock_guard lock(mutex_);
    complete();
    if (path.empty())
        return;
    const auto written = std::filesystem::exists(path) ? std::filesystem::path(path.string() + ".partial") : path;
    checkRegular(path);
    file_ = openSoundFile(written, rate_, formatOf(path));
    file_->command(SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    file_->command(SFC_SET_CLIPPING, nullptr, SF_TRUE);            // for the formats of integers
    if ((file_->format() & SF_FORMAT_TYPEMASK) != SF_FORMAT_RF64)  // which has no such chunk, but would get one
        file_->command(SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE); // with the time of day in it
    path_ = path;
    writtenPath_ = written;
    cutShort_ = false;
    sinceHeader_ = 0;
    prepare();
    active_.store(true, std::memory_order_release);
}

std::string Recorder::file() const {
    const std::lock_guard lock(mutex_);
    return path_;
}

void Recorder::pump() noexcept {
    if (!isBusy())
        return;
    const std::lock_guard lock(mutex_);
    writeOut();
}

void Recorder::writeOut() noexcept {
    while (const size_t frames = file_ ? ring_.read(chunk_) : 0) {
        const auto count = static_cast<sf_count_t>(frames);
        if (!cutShort_ && file_->writef(chunk_.front().data(), count) != count)
            fail(file_->strError());
        if (cutShort_)
            lose(frames);
        sinceHeader_ += frames;
        if (sinceHeader_ >= rate_) {
            file_->command(SFC_UPDATE_HEADER_NOW, nullptr, 0);
            sinceHeader_ = 0;
        }
    }
}

void Recorder::complete() noexcept {
    active_.store(false, std::memory_order_release);
    if (!file_)
        return;
    writeOut();
    if (const int error = sf_close(file_->takeOwnership()); error != 0 && !cutShort_)
        fail(sf_error_number(error));
    file_.reset();
    std::error_code error;
    if (!cutShort_ && writtenPath_ != path_)
        std::filesystem::rename(writtenPath_, path_, error);
    if (error)
        fail(error.message().c_str());
    path_.clear();
}

void Recorder::fail(const char *reason) noexcept {
    cutShort_ = true;
    hasFailed_ = true;
    sonetrix_log(SONETRIX_LOG_ERROR, "engine", 0, 1, "the recording %s is cut short: %s", writtenPath_.c_str(), reason);
}

void Recorder::write(const float *const *inputs, uint32_t frames) noexcept {
    if (!isBusy())
        return;
    const size_t count = std::min<size_t>(frames, ring_.room());
    for (size_t channel = 0; channel < channelCount; ++channel)
        for (size_t frame = 0; frame < count; ++frame)
            block_[frame][channel] = inputs[channel][frame];
    ring_.write(std::span(block_).first(count));
    lose(frames - count);
}

} // namespace sonetrix::dev

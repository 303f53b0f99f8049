#include "files/recorder.h"

#include "sonetrix/engine_api.h"

#include <algorithm>
#include <system_error>

namespace sonetrix::dev {

namespace {
constexpr size_t framesPerWrite = 1024;
}

void Recorder::open(const std::filesystem::path &path) {
    const std::lock_guard lock(mutex_);
    complete();
    if (path.empty())
        return;
    const auto writtenPath = std::filesystem::exists(path) ? std::filesystem::path(path.string() + ".partial") : path;
    file_ = createSoundFile(writtenPath, path, rate_, channelCount);
    path_ = path;
    writtenPath_ = writtenPath;
    cutShort_ = false;
    sinceHeader_ = 0;
    if (chunk_.empty()) {
        ring_.allocate(2 * channelCount * rate_);
        chunk_.resize(framesPerWrite * channelCount);
    }
    ring_.discard();
    recording_.store(true, std::memory_order_release);
}

std::string Recorder::file() const {
    const std::lock_guard lock(mutex_);
    return path_;
}

void Recorder::pump() noexcept {
    if (!recording_.load(std::memory_order_acquire))
        return;
    const std::lock_guard lock(mutex_);
    writeOut();
}

void Recorder::close() noexcept {
    const std::lock_guard lock(mutex_);
    complete();
}

void Recorder::writeOut() noexcept {
    while (const size_t count = file_ ? ring_.read(chunk_) : 0) {
        const auto frames = static_cast<sf_count_t>(count / channelCount);
        if (!cutShort_ && sf_writef_float(file_.get(), chunk_.data(), frames) != frames)
            fail(sf_strerror(file_.get()));
        if (cutShort_)
            dropped_.fetch_add(static_cast<uint32_t>(frames), std::memory_order_relaxed);
        sinceHeader_ += static_cast<uint32_t>(frames);
        if (sinceHeader_ >= rate_) {
            sf_command(file_.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
            sinceHeader_ = 0;
        }
    }
}

void Recorder::complete() noexcept {
    recording_.store(false, std::memory_order_release);
    if (!file_)
        return;
    writeOut();
    if (const int error = sf_close(file_.release()); error != 0 && !cutShort_)
        fail(sf_error_number(error));
    forgetTime(writtenPath_);
    std::error_code error;
    if (!cutShort_ && writtenPath_ != path_)
        std::filesystem::rename(writtenPath_, path_, error);
    if (error)
        fail(error.message());
    path_.clear();
}

void Recorder::fail(const std::string &reason) noexcept {
    cutShort_ = true;
    hasFailed_ = true;
    sonetrix_log(
        SONETRIX_LOG_ERROR, "engine", 0, 1, "the recording %s is cut short: %s", writtenPath_.c_str(), reason.c_str());
}

void Recorder::write(const float *const *inputs, uint32_t frames) noexcept {
    if (!recording_.load(std::memory_order_acquire))
        return;
    const auto count = std::min<size_t>(frames, ring_.room() / channelCount);
    const auto samples = std::span(block_).first(count * channelCount);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = inputs[i % channelCount][i / channelCount];
    ring_.write(samples);
    if (count < frames)
        dropped_.fetch_add(frames - static_cast<uint32_t>(count), std::memory_order_relaxed);
}

} // namespace sonetrix::dev

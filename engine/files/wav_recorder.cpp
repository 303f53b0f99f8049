#include "files/wav_recorder.h"

#include "sonetrix/engine_api.h"

#include <algorithm>

namespace sonetrix::dev {

namespace {

constexpr size_t framesPerWrite = 1024;

SoundFile create(const std::filesystem::path &path, uint32_t rate, size_t channels) {
    SF_INFO info{};
    info.samplerate = static_cast<int>(rate);
    info.channels = static_cast<int>(channels);
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    SoundFile file = openSoundFile(path, SFM_WRITE, info);
    sf_command(file.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE); // it carries the time of day
    return file;
}

} // namespace

WavRecorder::WavRecorder(const std::filesystem::path &path, uint32_t rate)
    : file_(create(path, rate, channels)), ring_(channels * 2 * rate), chunk_(framesPerWrite * channels) {}

void WavRecorder::startThread() {
    thread_.emplace([this] { pump(); });
}

void WavRecorder::pump() noexcept {
    while (const size_t count = std::min(ring_.available(), chunk_.size())) {
        const auto samples = std::span(chunk_).first(count);
        ring_.read(samples);
        const auto wanted = static_cast<sf_count_t>(count);
        if (!failed_ && sf_write_float(file_.get(), samples.data(), wanted) != wanted) {
            failed_ = true;
            sonetrix_log(SONETRIX_LOG_ERROR, __FILE__, __LINE__, 1, "recording failed: %s", sf_strerror(file_.get()));
        }
    }
}

void WavRecorder::write(std::span<const float> interleaved) noexcept {
    const size_t count = std::min(interleaved.size(), ring_.room() / channels * channels);
    ring_.write(interleaved.first(count));
    if (count < interleaved.size())
        dropped_.fetch_add(static_cast<uint32_t>((interleaved.size() - count) / channels), std::memory_order_relaxed);
}

void WavRecorder::close() noexcept {
    const std::lock_guard lock(closeMutex_);
    if (!file_)
        return;
    thread_.reset();
    pump();
    file_.reset();
}

} // namespace sonetrix::dev

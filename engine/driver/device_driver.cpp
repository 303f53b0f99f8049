#include "driver/device_driver.h"

#include "graph/refusal.h"
#include "sonetrix/engine_api.h"
#include "thread.h"

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <optional>
#include <stdexcept>
#include <sys/mman.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace sonetrix::dev {

namespace {

using namespace std::chrono_literals;

/// The libraries below PortAudio write to standard error about every device that they do not find. While they look for
/// some, that goes to the log.
PaError initialise() {
    const int screen = ::dup(STDERR_FILENO);
    const int file = ::memfd_create("sound", MFD_CLOEXEC);
    if (screen < 0 || file < 0)
        return paInternalError;
    ::dup2(file, STDERR_FILENO);
    const PaError error = Pa_Initialize();
    ::dup2(screen, STDERR_FILENO);
    std::ifstream lines("/proc/self/fd/" + std::to_string(file));
    for (std::string line; std::getline(lines, line);)
        sonetrix_log(SONETRIX_LOG_DEBUG, "sound", 0, 1, "%s", line.c_str());
    ::close(screen);
    ::close(file);
    return error;
}

void check(PaError error) {
    if (error >= 0)
        return;
    const bool isHosts = error == paUnanticipatedHostError;
    throw std::runtime_error(
        std::string("sound device: ") + (isHosts ? Pa_GetLastHostErrorInfo()->errorText : Pa_GetErrorText(error)));
}

std::string nameOf(PaDeviceIndex device) {
    const PaDeviceInfo &info = *Pa_GetDeviceInfo(device);
    return fmt::format("{}: {}", Pa_GetHostApiInfo(info.hostApi)->name, info.name);
}

PaDeviceIndex find(std::string_view wanted) {
    std::optional<PaDeviceIndex> part;
    for (PaDeviceIndex device = 0; device < Pa_GetDeviceCount(); ++device) {
        const std::string name = nameOf(device);
        if (name == wanted || Pa_GetDeviceInfo(device)->name == wanted)
            return device;
        if (!part && name.find(wanted) != std::string::npos)
            part = device;
    }
    if (!part)
        throw std::runtime_error(fmt::format("there is no sound device \"{}\"; see --list-devices", wanted));
    return *part;
}

/// One direction of a stream; none when the device has no such channels.
std::optional<PaStreamParameters> direction(
    PaDeviceIndex device, int PaDeviceInfo::*channels, PaTime PaDeviceInfo::*latency) {
    const PaDeviceInfo *info = device == paNoDevice ? nullptr : Pa_GetDeviceInfo(device);
    if (info == nullptr || info->*channels == 0)
        return std::nullopt;
    const int used = std::min(info->*channels, static_cast<int>(channelCount));
    return PaStreamParameters{device, used, paFloat32 | paNonInterleaved, info->*latency, nullptr};
}

} // namespace

std::vector<std::string> soundDevices() {
    check(initialise());
    std::vector<std::string> lines;
    for (PaDeviceIndex device = 0; device < Pa_GetDeviceCount(); ++device) {
        const PaDeviceInfo &info = *Pa_GetDeviceInfo(device);
        lines.push_back(fmt::format("{}   {} in, {} out, {:g} Hz", nameOf(device), info.maxInputChannels,
            info.maxOutputChannels, info.defaultSampleRate));
    }
    Pa_Terminate();
    return lines;
}

DeviceDriver::DeviceDriver(
    uint32_t rate, uint32_t block, Process process, std::string_view device, DeviceBuffers &buffers)
    : ClockDriver(rate, block, std::move(process)), buffers_(buffers) {
    // The threads that begin here are none for the program's signals.
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, nullptr, &before);
    blockTerminationSignals();
    try {
        check(initialise());
        open(device);
    } catch (...) {
        Pa_Terminate();
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        throw;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

DeviceDriver::~DeviceDriver() {
    stop();
    if (!vanished_)
        Pa_Terminate();
}

void DeviceDriver::open(std::string_view device) {
    const PaDeviceIndex named = device.empty() ? paNoDevice : find(device);
    const PaDeviceIndex in = device.empty() ? Pa_GetDefaultInputDevice() : named;
    const PaDeviceIndex out = device.empty() ? Pa_GetDefaultOutputDevice() : named;
    if (in == paNoDevice && out == paNoDevice)
        throw std::runtime_error("there is no sound device");
    const auto capture = direction(in, &PaDeviceInfo::maxInputChannels, &PaDeviceInfo::defaultLowInputLatency);
    const auto playback = direction(out, &PaDeviceInfo::maxOutputChannels, &PaDeviceInfo::defaultLowOutputLatency);
    device_ = nameOf(out != paNoDevice ? out : in);
    check(Pa_OpenStream(&stream_, capture ? &*capture : nullptr, playback ? &*playback : nullptr, rate(), block(),
        paNoFlag, deviceBlock, this));
    captureChannels_ = capture ? static_cast<size_t>(capture->channelCount) : 0;
    playbackChannels_ = playback ? static_cast<size_t>(playback->channelCount) : 0;
    const PaStreamInfo &info = *Pa_GetStreamInfo(stream_);
    captureLatency_ = static_cast<float>(info.inputLatency);
    playbackLatency_ = static_cast<float>(info.outputLatency);
}

void DeviceDriver::run(const std::stop_token &stop) noexcept {
    if (Pa_StartStream(stream_) == paNoError)
        watch(stop);
    if (stop.stop_requested()) {
        Pa_StopStream(stream_);
        Pa_CloseStream(stream_);
        return;
    }
    // Its stream is left as it is: the functions that end it may wait for a device that does not answer.
    vanished_ = true;
    while (inBlock_.exchange(true, std::memory_order_acquire))
        std::this_thread::sleep_for(1ms);
    buffers_ = {};
    sonetrix_log(SONETRIX_LOG_ERROR, "engine", 0, 1, "the sound device \"%s\" is gone: the engine goes on by the clock",
        device_.c_str());
    becomeAudioThread();
    ClockDriver::run(stop);
}

void DeviceDriver::watch(const std::stop_token &stop) {
    constexpr int patience = 20; // looks without a block between them
    int idle = 0;
    for (uint32_t seen = blocks_; idle < patience;) {
        pause(stop, 100ms);
        if (stop.stop_requested() || Pa_IsStreamActive(stream_) != 1)
            return;
        const uint32_t blocks = blocks_;
        idle = blocks == seen ? idle + 1 : 0;
        seen = blocks;
    }
}

int DeviceDriver::deviceBlock(const void *captured,
    void *played,
    unsigned long frames,
    const PaStreamCallbackTimeInfo * /*time*/,
    PaStreamCallbackFlags flags,
    void *driver) noexcept {
    auto &self = *static_cast<DeviceDriver *>(driver);
    if (frames != self.block() || self.inBlock_.exchange(true, std::memory_order_acquire))
        return paAbort;
    self.process(static_cast<const float *const *>(captured), static_cast<float *const *>(played), flags);
    self.inBlock_.store(false, std::memory_order_release);
    return paContinue;
}

void DeviceDriver::process(const float *const *captured, float *const *played, PaStreamCallbackFlags flags) noexcept {
    if (blocks_.fetch_add(1, std::memory_order_relaxed) == 0) {
        becomeAudioThread();
        askForRealtimeScheduling();
    }
    if ((flags & (paInputUnderflow | paInputOverflow | paOutputUnderflow | paOutputOverflow)) != 0)
        countXrun();
    std::copy_n(captured, captureChannels_, buffers_.captured.begin());
    std::copy_n(played, playbackChannels_, buffers_.played.begin());
    processBlock(block(), 0);
}

} // namespace sonetrix::dev

#include "driver/device_driver.h"

#include "sonetrix/engine_api.h"

#include <fmt/format.h>
#include <fstream>
#include <future>
#include <portaudio.h>
#include <stdexcept>
#include <sys/mman.h>

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

PaDeviceIndex find(const std::string &wanted) {
    PaDeviceIndex part = paNoDevice;
    for (PaDeviceIndex device = 0; device < Pa_GetDeviceCount(); ++device) {
        const std::string name = nameOf(device);
        if (name == wanted || Pa_GetDeviceInfo(device)->name == wanted)
            return device;
        if (part == paNoDevice && name.find(wanted) != std::string::npos)
            part = device;
    }
    if (part == paNoDevice)
        throw std::runtime_error("there is no sound device \"" + wanted + "\"; see --list-devices");
    return part;
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

/// PortAudio, in use as long as one of these is there.
class PortAudio {
public:
    PortAudio() { check(initialise()); }
    PortAudio(const PortAudio &) = delete;
    PortAudio &operator=(const PortAudio &) = delete;
    ~PortAudio() { Pa_Terminate(); }
};

class DeviceDriver final : public ClockDriver {
public:
    DeviceDriver(const AudioFormat &format, Process process, const std::string &device, DeviceBuffers &buffers)
        : ClockDriver(format, std::move(process)), buffers_(buffers) {
        // Threads that begin here are none for the program's signals, as those of this one are not.
        std::async(std::launch::async, [&] {
            blockTerminationSignals();
            sound_ = std::make_unique<PortAudio>();
            open(device);
        }).get();
    }
    ~DeviceDriver() override { stop(); }

    [[nodiscard]] const char *name() const noexcept override { return vanished_ ? ClockDriver::name() : "device"; }
    /// The device's own words, in seconds.
    [[nodiscard]] std::vector<Parameter> parameters() override {
        const PaStreamInfo &info = *Pa_GetStreamInfo(stream_);
        const auto constant = [](PaTime seconds) { return reader([seconds] { return static_cast<float>(seconds); }); };
        return {{"device.latency.capture", constant(info.inputLatency)},
            {"device.latency.playback", constant(info.outputLatency)}};
    }

private:
    void open(const std::string &device) {
        const PaDeviceIndex named = device.empty() ? paNoDevice : find(device);
        const PaDeviceIndex in = device.empty() ? Pa_GetDefaultInputDevice() : named;
        const PaDeviceIndex out = device.empty() ? Pa_GetDefaultOutputDevice() : named;
        if (in == paNoDevice && out == paNoDevice)
            throw std::runtime_error("there is no sound device");
        const auto capture = direction(in, &PaDeviceInfo::maxInputChannels, &PaDeviceInfo::defaultLowInputLatency);
        const auto playback = direction(out, &PaDeviceInfo::maxOutputChannels, &PaDeviceInfo::defaultLowOutputLatency);
        device_ = nameOf(out != paNoDevice ? out : in);
        check(Pa_OpenStream(&stream_, capture ? &*capture : nullptr, playback ? &*playback : nullptr, format().rate,
            format().block, paNoFlag, deviceBlock, this));
        captureChannels_ = capture ? capture->channelCount : 0;
        playbackChannels_ = playback ? playback->channelCount : 0;
    }

    void run(const std::stop_token &stop) noexcept override {
        if (Pa_StartStream(stream_) == paNoError)
            watch(stop);
        if (stop.stop_requested()) {
            Pa_StopStream(stream_);
            Pa_CloseStream(stream_);
            return;
        }
        // Its stream is left as it is: the functions that end it may wait for a device that does not answer.
        static_cast<void>(sound_.release());
        vanished_ = true;
        while (inBlock_.exchange(true, std::memory_order_acquire))
            std::this_thread::sleep_for(1ms);
        buffers_ = {};
        sonetrix_log(SONETRIX_LOG_ERROR, "engine", 0, 1,
            "the sound device \"%s\" is gone: the engine goes on by the clock", device_.c_str());
        becomeAudioThread();
        ClockDriver::run(stop);
    }

    /// Returns when the device has gone, or the thread is to end.
    void watch(const std::stop_token &stop) {
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

    static int deviceBlock(const void *captured,
        void *played,
        unsigned long frames,
        const PaStreamCallbackTimeInfo * /*time*/,
        PaStreamCallbackFlags flags,
        void *driver) noexcept {
        auto &self = *static_cast<DeviceDriver *>(driver);
        if (frames != self.format().block || self.inBlock_.exchange(true, std::memory_order_acquire))
            return paAbort;
        if (self.blocks_.fetch_add(1, std::memory_order_relaxed) == 0) {
            self.becomeAudioThread();
            askForRealtimeScheduling();
        }
        if ((flags & (paInputUnderflow | paInputOverflow | paOutputUnderflow | paOutputOverflow)) != 0)
            self.countXrun();
        std::copy_n(static_cast<const float *const *>(captured), self.captureChannels_, self.buffers_.captured.begin());
        std::copy_n(static_cast<float *const *>(played), self.playbackChannels_, self.buffers_.played.begin());
        self.processBlock(self.format().block);
        self.inBlock_.store(false, std::memory_order_release);
        return paContinue;
    }

    DeviceBuffers &buffers_;
    std::unique_ptr<PortAudio> sound_;
    std::string device_;
    PaStream *stream_ = nullptr;
    int captureChannels_ = 0;
    int playbackChannels_ = 0;
    std::atomic<uint32_t> blocks_{0};
    std::atomic<bool> inBlock_{false}; // and for ever once the clock drives
    std::atomic<bool> vanished_{false};
};

} // namespace

std::vector<std::string> soundDevices() {
    const PortAudio sound;
    std::vector<std::string> lines;
    for (PaDeviceIndex device = 0; device < Pa_GetDeviceCount(); ++device) {
        const PaDeviceInfo &info = *Pa_GetDeviceInfo(device);
        lines.push_back(fmt::format("{}   {} in, {} out, {:g} Hz", nameOf(device), info.maxInputChannels,
            info.maxOutputChannels, info.defaultSampleRate));
    }
    return lines;
}

std::unique_ptr<Driver> makeDeviceDriver(
    const AudioFormat &format, Driver::Process process, const std::string &device, DeviceBuffers &buffers) {
    return std::make_unique<DeviceDriver>(format, std::move(process), device, buffers);
}

} // namespace sonetrix::dev

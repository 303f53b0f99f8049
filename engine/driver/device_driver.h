#pragma once

#include "driver/clock_driver.h"
#include "graph/system_module.h"

#include <atomic>
#include <memory>
#include <portaudio.h>
#include <string>
#include <vector>

namespace sonetrix::dev {

/// The sound devices that there are, a line for each: its name and what it has.
std::vector<std::string> soundDevices();

/// PortAudio, in use as long as one of these is there.
class PortAudio {
public:
    PortAudio(); ///< throws std::runtime_error
    PortAudio(const PortAudio &) = delete;
    PortAudio &operator=(const PortAudio &) = delete;
    ~PortAudio();
};

/// A sound device, through PortAudio: what it records goes to the capture ports, what the playback ports get it plays.
/// It asks for the blocks, on a thread of PortAudio's, while the driver's own thread watches. When it vanishes, the
/// engine goes on by the clock.
class DeviceDriver final : public ClockDriver {
public:
    /// An empty name is the system's default device; else one of the list, or a part of one. Throws std::runtime_error
    /// when there is no such device or it cannot be used.
    DeviceDriver(const AudioFormat &format, Process process, const std::string &device, DeviceBuffers &buffers);
    ~DeviceDriver() override { stop(); }

    [[nodiscard]] const char *name() const noexcept override { return vanished_ ? ClockDriver::name() : "device"; }
    /// In seconds, as the device says itself.
    [[nodiscard]] float captureLatency() const noexcept { return captureLatency_; }
    [[nodiscard]] float playbackLatency() const noexcept { return playbackLatency_; }

private:
    void run(const std::stop_token &stop) noexcept override;
    void open(const std::string &device);
    void watch(const std::stop_token &stop);
    static int deviceBlock(const void *captured,
        void *played,
        unsigned long frames,
        const PaStreamCallbackTimeInfo *time,
        PaStreamCallbackFlags flags,
        void *driver) noexcept;
    void process(const float *const *captured, float *const *played, PaStreamCallbackFlags flags) noexcept;

    DeviceBuffers &buffers_;
    std::unique_ptr<PortAudio> sound_;
    std::string device_;
    PaStream *stream_ = nullptr;
    size_t captureChannels_ = 0;
    size_t playbackChannels_ = 0;
    float captureLatency_ = 0;
    float playbackLatency_ = 0;
    std::atomic<uint32_t> blocks_{0};
    std::atomic<bool> inBlock_{false}; // and for ever once the clock drives
    std::atomic<bool> vanished_{false};
};

} // namespace sonetrix::dev

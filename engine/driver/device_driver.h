#pragma once

#include "driver/driver.h"
#include "graph/system_module.h"

namespace sonetrix::dev {

/// The sound devices that there are, a line for each: its name and what it has.
std::vector<std::string> soundDevices();

/// A sound device, through PortAudio: what it records goes to the capture ports, what the playback ports get it plays.
/// It asks for the blocks, on a thread of PortAudio's, while the driver's own thread watches. When it vanishes, the
/// engine goes on by the clock.
///
/// An empty name is the system's default device; else one of the list, or a part of one. Throws std::runtime_error when
/// there is no such device or it cannot be used.
std::unique_ptr<Driver> makeDeviceDriver(
    const AudioFormat &format, Driver::Process process, const std::string &device, DeviceBuffers &buffers);

} // namespace sonetrix::dev

#pragma once

#include <array>

namespace sonetrix::dev {

/// What a sound device brings and takes in a block, channel by channel; null where it has no such channel.
struct DeviceBuffers {
    static constexpr size_t channels = 2;

    std::array<const float *, channels> captured{};
    std::array<float *, channels> played{};
};

} // namespace sonetrix::dev

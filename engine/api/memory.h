#pragma once

#include <cstddef>
#include <cstdint>

namespace sonetrix::dev {

/// What sonetrix_malloc has handed out; a snapshot of counters that other threads go on changing.
struct MemoryUse {
    size_t liveBlocks;
    size_t liveBytes;
    size_t peakBytes;
    uint64_t totalBlocks;
    uint64_t totalBytes;
};
MemoryUse memoryUse() noexcept;

} // namespace sonetrix::dev

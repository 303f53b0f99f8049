#include "api/memory.h"

#include "sonetrix/engine_api.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>

namespace sonetrix::dev {

namespace {

/// In front of every block: its size, padded so that the block keeps malloc's alignment.
struct alignas(std::max_align_t) Header {
    size_t size;
};

std::atomic<size_t> liveBlocks;
std::atomic<size_t> liveBytes;
std::atomic<size_t> peakBytes;
std::atomic<uint64_t> totalBlocks;
std::atomic<uint64_t> totalBytes;

void raisePeak(size_t bytes) noexcept {
    size_t peak = peakBytes;
    while (peak < bytes && !peakBytes.compare_exchange_weak(peak, bytes)) {
    }
}

} // namespace

MemoryUse memoryUse() noexcept { return {liveBlocks, liveBytes, peakBytes, totalBlocks, totalBytes}; }

} // namespace sonetrix::dev

using namespace sonetrix::dev;

void *sonetrix_malloc(size_t size) {
    if (size > PTRDIFF_MAX - sizeof(Header))
        return nullptr;
    void *memory = std::malloc(sizeof(Header) + size);
    if (memory == nullptr)
        return nullptr;
    auto *header = ::new (memory) Header{size};
    ++liveBlocks;
    raisePeak(liveBytes += size);
    ++totalBlocks;
    totalBytes += size;
    return header + 1;
}

void sonetrix_free(void *memory) {
    if (memory == nullptr)
        return;
    Header *header = static_cast<Header *>(memory) - 1;
    --liveBlocks;
    liveBytes -= header->size;
    std::free(header);
}

void sonetrix_memory_rt_inspect() {
    const MemoryUse use = memoryUse();
    std::printf("live   %12zu bytes in %zu blocks\n"
                "peak   %12zu bytes\n"
                "total  %12llu bytes in %llu blocks\n",
        use.liveBytes, use.liveBlocks, use.peakBytes, static_cast<unsigned long long>(use.totalBytes),
        static_cast<unsigned long long>(use.totalBlocks));
    std::fflush(stdout);
}

#include "sonetrix/engine_api.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

/// In front of every block: its size, padded so that the block keeps malloc's alignment.
struct alignas(std::max_align_t) Header {
    size_t size;
};

std::atomic<size_t> liveBlocks;
std::atomic<size_t> liveBytes;
std::atomic<size_t> peakBytes;
std::atomic<size_t> totalBlocks;
std::atomic<size_t> totalBytes;

void raisePeak(size_t bytes) noexcept {
    size_t peak = peakBytes;
    while (peak < bytes && !peakBytes.compare_exchange_weak(peak, bytes)) {
    }
}

} // namespace

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
    std::printf("live   %12zu bytes in %zu blocks\n"
                "peak   %12zu bytes\n"
                "total  %12zu bytes in %zu blocks\n",
        liveBytes.load(), liveBlocks.load(), peakBytes.load(), totalBytes.load(), totalBlocks.load());
    std::fflush(stdout);
}

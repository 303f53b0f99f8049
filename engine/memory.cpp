#include "sonetrix/engine_api.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <malloc.h>

namespace {

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
    void *memory = std::malloc(size);
    if (memory == nullptr)
        return nullptr;
    const size_t bytes = malloc_usable_size(memory);
    ++liveBlocks;
    raisePeak(liveBytes += bytes);
    ++totalBlocks;
    totalBytes += bytes;
    return memory;
}

void sonetrix_free(void *memory) {
    if (memory == nullptr)
        return;
    --liveBlocks;
    liveBytes -= malloc_usable_size(memory);
    std::free(memory);
}

void sonetrix_memory_rt_inspect() {
    std::printf("live   %12zu bytes in %zu blocks\n"
                "peak   %12zu bytes\n"
                "total  %12zu bytes in %zu blocks\n",
        liveBytes.load(), liveBlocks.load(), peakBytes.load(), totalBytes.load(), totalBlocks.load());
    std::fflush(stdout);
}

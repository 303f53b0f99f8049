#include "api/memory.h"

#include "sonetrix/engine_api.h"

#include <array>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <thread>

using namespace sonetrix::dev;

TEST(MemoryTest, accountsForWhatIsLive) {
    const MemoryUse before = memoryUse();
    void *large = sonetrix_malloc(1'000'000);
    void *empty = sonetrix_malloc(0);
    ASSERT_NE(large, nullptr);
    EXPECT_NE(empty, nullptr);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(large) % alignof(std::max_align_t), 0U);
    std::memset(large, 0xff, 1'000'000);
    EXPECT_EQ(memoryUse().liveBlocks, before.liveBlocks + 2);
    EXPECT_EQ(memoryUse().liveBytes, before.liveBytes + 1'000'000);
    EXPECT_EQ(sonetrix_malloc(SIZE_MAX), nullptr);
    sonetrix_free(large);
    sonetrix_free(empty);
    sonetrix_free(nullptr);
    const MemoryUse after = memoryUse();
    EXPECT_EQ(after.liveBlocks, before.liveBlocks);
    EXPECT_EQ(after.liveBytes, before.liveBytes);
    EXPECT_GE(after.peakBytes, before.liveBytes + 1'000'000);
    EXPECT_EQ(after.totalBlocks, before.totalBlocks + 2);
    EXPECT_EQ(after.totalBytes, before.totalBytes + 1'000'000);
}

TEST(MemoryTest, countsFromManyThreads) {
    const MemoryUse before = memoryUse();
    std::array<std::jthread, 4> threads;
    for (std::jthread &thread : threads) {
        thread = std::jthread([] {
            for (int i = 0; i < 10'000; ++i)
                sonetrix_free(sonetrix_malloc(8));
        });
    }
    for (std::jthread &thread : threads)
        thread.join();
    EXPECT_EQ(memoryUse().liveBytes, before.liveBytes);
    EXPECT_EQ(memoryUse().totalBlocks, before.totalBlocks + 40'000);
}

TEST(MemoryTest, inspectPrintsAtOnce) {
    testing::internal::CaptureStdout();
    sonetrix_memory_rt_inspect();
    const std::string text = testing::internal::GetCapturedStdout();
    EXPECT_NE(text.find("live"), std::string::npos);
    EXPECT_NE(text.find("bytes in " + std::to_string(memoryUse().liveBlocks) + " blocks"), std::string::npos);
}

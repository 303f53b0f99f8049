#include "engine_fixture.h"

#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <gtest/gtest.h>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace sonetrix::dev;
using namespace std::chrono_literals;

namespace {

using Clock = std::chrono::steady_clock;

/// Collects what callbacks deliver.
struct Inbox {
    std::mutex mutex;
    std::condition_variable arrived;
    std::vector<ListKeyValue> lists;
    std::vector<Clock::time_point> times;

    void put(const ListKeyValue &list) {
        const std::lock_guard lock(mutex);
        lists.push_back(list);
        times.push_back(Clock::now());
        arrived.notify_all();
    }
    bool waitFor(size_t count) {
        std::unique_lock lock(mutex);
        return arrived.wait_for(lock, 10s, [&] { return lists.size() >= count; });
    }
    static void list(sonetrix_cListKeyValue_t *list, void *user) { static_cast<Inbox *>(user)->put(*list); }
    static void timer(void *user) { static_cast<Inbox *>(user)->put({}); }
};

using Owned = std::unique_ptr<ListKeyValue>;

std::vector<std::string> keysOf(const ListKeyValue *list) {
    std::vector<std::string> keys;
    if (list != nullptr)
        for (const auto &entry : *list)
            keys.emplace_back(entry.key);
    return keys;
}

class EventsTest : public EngineTest {
protected:
    void SetUp() override { start({.block = 480}); }
};

} // namespace

TEST_F(EventsTest, timersRepeatOnTheirGrid) {
    Inbox inbox;
    const auto before = Clock::now();
    void *timer = sonetrix_engine_addTimer(handle, 20, Inbox::timer, &inbox);
    ASSERT_NE(timer, nullptr);
    ASSERT_TRUE(inbox.waitFor(10));
    sonetrix_engine_delTimer(handle, timer);
    const size_t count = inbox.lists.size();
    for (size_t i = 0; i < 10; ++i)
        EXPECT_GE(inbox.times[i] - before, 20ms * (i + 1)) << i;
    std::this_thread::sleep_for(60ms);
    EXPECT_EQ(inbox.lists.size(), count);
}

TEST_F(EventsTest, timerArguments) {
    Inbox inbox;
    EXPECT_EQ(sonetrix_engine_addTimer(handle, -1, Inbox::timer, &inbox), nullptr);
    EXPECT_EQ(sonetrix_engine_addTimer(handle, 1, nullptr, &inbox), nullptr);
    EXPECT_EQ(sonetrix_engine_addTimer(nullptr, 1, Inbox::timer, &inbox), nullptr);
    EXPECT_NE(sonetrix_engine_addTimer(handle, 0, Inbox::timer, &inbox), nullptr); // as a millisecond
    EXPECT_TRUE(inbox.waitFor(3));
    sonetrix_engine_delTimer(handle, nullptr);
    sonetrix_engine_delTimer(nullptr, nullptr);
    engine->join();
}

TEST_F(EventsTest, manyTimersComeAndGo) {
    std::atomic<int> calls{0};
    const auto count = [](void *user) { ++*static_cast<std::atomic<int> *>(user); };
    std::vector<void *> timers;
    timers.reserve(20'000);
    for (int i = 0; i < 20'000; ++i)
        timers.push_back(sonetrix_engine_addTimer(handle, i % 2 == 0 ? 3'600'000 : 30, count, &calls));
    EXPECT_TRUE(eventually([&] { return calls >= 10'000; }));
    for (void *timer : timers)
        sonetrix_engine_delTimer(handle, timer);
    const int after = calls;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(calls, after);
}

TEST_F(EventsTest, aTimerMayRemoveItself) {
    struct Self {
        sonetrix_engine_t *engine;
        std::atomic<void *> timer{nullptr};
        std::atomic<int> calls{0};
    } self{handle};
    self.timer = sonetrix_engine_addTimer(
        handle, 5,
        [](void *user) {
            auto &one = *static_cast<Self *>(user);
            while (one.timer == nullptr)
                std::this_thread::yield();
            ++one.calls;
            sonetrix_engine_delTimer(one.engine, one.timer);
        },
        &self);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(self.calls, 1);
}

TEST_F(EventsTest, changesComeTogetherWithTheNewestValue) {
    Inbox inbox;
    void *callback = sonetrix_engine_notify_changes_addCallback(handle, Inbox::list, &inbox);
    const auto level = static_cast<int32_t>(sonetrix_log_GetLogLevel());
    EXPECT_FALSE(set("engine.log.level", 99)); // out of range: no change
    EXPECT_FALSE(set("engine.rate", 1U));      // read-only: no change
    for (int32_t i = 0; i < 4000; ++i)
        EXPECT_TRUE(set("engine.log.level", i % 5));
    EXPECT_TRUE(set("engine.log.level", level));
    ASSERT_TRUE(inbox.waitFor(1));
    std::this_thread::sleep_for(50ms);
    sonetrix_engine_notify_changes_rmCallback(handle, callback);
    for (const ListKeyValue &list : inbox.lists)
        EXPECT_EQ(keysOf(&list), std::vector<std::string>{"engine.log.level"});
    EXPECT_LT(inbox.lists.size(), 2000U);
    EXPECT_EQ(inbox.lists.back()[0].value.as.int32, level);
    const size_t count = inbox.lists.size();
    EXPECT_TRUE(set("engine.log.level", level));
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(inbox.lists.size(), count);
}

TEST_F(EventsTest, debugMetersAreSetReplacedAndRemoved) {
    const uint32_t fast = SONETRIX_METERS_FAST;
    const auto value = valueRecord("text");
    const auto number = valueRecord(7);
    EXPECT_EQ(sonetrix_engine_addDebugMeter(handle, fast, "mine.a", &number), 0);
    EXPECT_EQ(sonetrix_engine_addDebugMeter(handle, fast, "mine.a", &value), 0);
    EXPECT_EQ(sonetrix_engine_addDebugMeter(handle, fast, "mine", &number), 0);
    EXPECT_EQ(sonetrix_engine_addDebugMeter(handle, fast, "mined.b", &number), 0);
    EXPECT_NE(sonetrix_engine_addDebugMeter(handle, 2, "mine.a", &number), 0);
    EXPECT_NE(sonetrix_engine_addDebugMeter(handle, fast, nullptr, &number), 0);
    EXPECT_NE(sonetrix_engine_addDebugMeter(handle, fast, "mine.a", nullptr), 0);
    const Owned meters(sonetrix_engine_GetLastMeters(handle, "mine", fast));
    EXPECT_EQ(keysOf(meters.get()), (std::vector<std::string>{"mine", "mine.a"}));
    EXPECT_STREQ((*meters)[1].value.as.string, "text");
    EXPECT_EQ(sonetrix_engine_GetLastMeters(handle, "mine", SONETRIX_METERS_SLOW), nullptr);
    EXPECT_EQ(sonetrix_engine_GetLastMeters(handle, "mine", 2), nullptr);
    EXPECT_EQ(sonetrix_engine_delDebugMeter(handle, fast, "mine.a"), 0);
    EXPECT_NE(sonetrix_engine_delDebugMeter(handle, fast, "mine.a"), 0);
    EXPECT_EQ(sonetrix_engine_GetLastMeters(handle, "mine.a", fast), nullptr);
}

TEST_F(EventsTest, oneMeterManagerAtATime) {
    sonetrix_readMeters_t read = nullptr;
    ASSERT_EQ(sonetrix_engine_registerMeterManager(handle, &read), 0);
    sonetrix_readMeters_t second = nullptr;
    EXPECT_NE(sonetrix_engine_registerMeterManager(handle, &second), 0);
    EXPECT_EQ(second, nullptr);
    const Owned meters(read(handle, "", SONETRIX_METERS_SLOW));
    const Owned info(sonetrix_engine_meterInfoList(handle, SONETRIX_METERS_SLOW));
    EXPECT_EQ(keysOf(meters.get()).size(), 8U);
    EXPECT_EQ(keysOf(meters.get()), keysOf(info.get()));
    EXPECT_EQ(sonetrix_engine_unregisterMeterManager(handle), 0);
    EXPECT_NE(sonetrix_engine_unregisterMeterManager(handle), 0);
    EXPECT_EQ(read(handle, "", SONETRIX_METERS_SLOW), nullptr);
    EXPECT_EQ(sonetrix_engine_registerMeterManager(handle, &read), 0);
}

TEST_F(EventsTest, metersAreEmittedAtTheirRates) {
    Inbox fast;
    Inbox slow;
    void *fastHandle = sonetrix_engine_addCallbackMeterManager(handle, SONETRIX_METERS_FAST, Inbox::list, &fast);
    void *slowHandle = sonetrix_engine_addCallbackMeterManager(handle, SONETRIX_METERS_SLOW, Inbox::list, &slow);
    EXPECT_EQ(sonetrix_engine_addCallbackMeterManager(handle, 2, Inbox::list, &slow), nullptr);
    EXPECT_TRUE(slow.waitFor(4));
    sonetrix_engine_rmCallbackMeterManager(handle, fastHandle);
    sonetrix_engine_rmCallbackMeterManager(handle, slowHandle);
    EXPECT_GE(slow.times[3] - slow.times[0], 150ms); // 300, were the machine never busy
    EXPECT_GE(fast.lists.size(), slow.lists.size()); // ten times as many
    EXPECT_EQ(keysOf(&fast.lists.front())[0], "system.capture_1.peak");
}

TEST_F(EventsTest, metersShowWhatTheAudioThreadSees) {
    ListKeyValue tone;
    tone.add("amplitude", 0.5F);
    tone.add("frequency", 1000.0F);
    ASSERT_EQ(add("tone", "sine_fcac", &tone), 0);
    ASSERT_EQ(add("level", "track_max_peak"), 0);
    ASSERT_EQ(link("tone:output", "system:playback_1"), 0);
    ASSERT_EQ(link("tone:output", "level:input"), 0);
    const auto meter = [&](const char *module, const char *key) {
        const Owned meters(sonetrix_engine_GetLastMeters(handle, module, SONETRIX_METERS_SLOW));
        const sonetrix_value_t *value = meters ? meters->find(key) : nullptr;
        return value != nullptr ? value->as.float32 : -1.0F;
    };
    const auto near = [](float value, float expected) { return std::abs(value - expected) < 0.01F; };
    EXPECT_TRUE(eventually([&] { return near(meter("system", "system.playback_1.peak"), 0.5F); }));
    EXPECT_TRUE(eventually([&] { return near(meter("system", "system.playback_1.mean"), 0.3536F); }));
    EXPECT_TRUE(eventually([&] { return near(meter("level", "level.output"), 0.5F); }));
    EXPECT_EQ(meter("system", "system.playback_2.peak"), 0.0F);
    EXPECT_EQ(meter("tone", "level.output"), -1.0F);
}

TEST_F(EventsTest, afterTheStopNothingIsCalledBack) {
    Inbox inbox;
    sonetrix_engine_addTimer(handle, 1, Inbox::timer, &inbox);
    sonetrix_engine_addCallbackMeterManager(handle, SONETRIX_METERS_FAST, Inbox::list, &inbox);
    ASSERT_TRUE(inbox.waitFor(5));
    engine->join();
    const size_t count = inbox.lists.size();
    void *late = sonetrix_engine_addTimer(handle, 1, Inbox::timer, &inbox);
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(inbox.lists.size(), count);
    sonetrix_engine_delTimer(handle, late);
}

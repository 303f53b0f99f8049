#include "engine_fixture.h"

#include "clock.h"

#include <atomic>
#include <cmath>
#include <csignal>
#include <gmock/gmock.h>

using namespace sonetrix::dev;

namespace {

double seconds(const timespec &time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

class EngineLifeTest : public EngineTest {};

TEST_F(EngineLifeTest, refusesOptionsItCannotMeet) {
    const auto refusal = [](const Options &options) {
        std::string error;
        EXPECT_EQ(Engine::create(options, ListKeyValue(), error), nullptr);
        EXPECT_EQ(sonetrix_engineGet(), nullptr);
        return error;
    };
    EXPECT_THAT(refusal({.rate = 7999}), testing::HasSubstr("rate"));
    EXPECT_THAT(refusal({.block = 15}), testing::HasSubstr("block"));
    EXPECT_THAT(refusal({.input = directory / "none.wav"}), testing::HasSubstr("none.wav"));
    EXPECT_THAT(refusal({.record = directory / "no" / "out.wav"}), testing::HasSubstr("out.wav"));
    EXPECT_THAT(refusal({.offlineSeconds = -1}), testing::HasSubstr("offline"));
    start();
    std::string error;
    EXPECT_EQ(Engine::create({}, ListKeyValue(), error), nullptr);
    EXPECT_EQ(sonetrix_engineGet(), handle);
}

TEST_F(EngineLifeTest, stopsOnceOnAThreadOfItsOwn) {
    std::string error;
    engine = Engine::create({}, ListKeyValue(), error);
    handle = sonetrix_engineGet();
    std::atomic<int> calls{0};
    std::atomic<bool> wasRunning{true};
    engine->setStopHook([&] {
        ++calls;
        wasRunning = sonetrix_engine_IsRunning(handle) != 0;
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_TRUE(sigismember(&blocked, SIGINT) && sigismember(&blocked, SIGTERM));
    });
    EXPECT_EQ(sonetrix_engine_IsRunning(handle), 0);
    ASSERT_TRUE(engine->start(error));
    EXPECT_EQ(sonetrix_engine_IsRunning(handle), 1);
    EXPECT_EQ(sonetrix_engine_DriverIsLoaded(handle), 1);
    EXPECT_EQ(sonetrix_engine_DriverIsLoaded(nullptr), 0);
    EXPECT_EQ(engine->exitCode(), std::nullopt);
    sonetrix_engine_SetExitCode(handle, -3);
    sonetrix_engine_RequestStop(handle);
    sonetrix_engine_RequestStop(handle);
    EXPECT_TRUE(eventually([&] { return sonetrix_engine_DriverIsLoaded(handle) == 0; }));
    engine->join();
    EXPECT_EQ(calls, 1);
    EXPECT_FALSE(wasRunning);
    EXPECT_EQ(sonetrix_engine_IsRunning(handle), 0);
    EXPECT_EQ(engine->exitCode(), -3);
    engine.reset();
    EXPECT_EQ(sonetrix_engineGet(), nullptr);
}

TEST_F(EngineLifeTest, blocksComeInRealTime) {
    start({.rate = 48000, .block = 480});
    ASSERT_TRUE(eventually([&] { return engine->driver().cpuFigures().timeMean > 0; }));
    float usage = 0;
    float usagePeak = 0;
    float time = 0;
    float timePeak = 0;
    float budget = 0;
    float lateness = 0;
    EXPECT_EQ(sonetrix_engine_DriverGetCpuUsage(handle, &usage, &usagePeak, &time, &timePeak, &budget, &lateness), 0);
    EXPECT_FLOAT_EQ(budget, 0.01F);
    EXPECT_FLOAT_EQ(usage, 100 * time / budget);
    EXPECT_GE(usagePeak, usage);
    EXPECT_GE(timePeak, time);
    EXPECT_GE(lateness, 0);

    timespec block{};
    timespec now{};
    ASSERT_TRUE(eventually([&] {
        sonetrix_clock_sample_timestamp(handle, &block);
        sonetrix_clock_gettime(&now);
        return seconds(now) - seconds(block) < 0.02;
    }));
    const double firstBlock = seconds(block);
    const double firstNow = seconds(now);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    sonetrix_clock_sample_timestamp(handle, &block);
    sonetrix_clock_gettime(&now);
    EXPECT_NEAR(seconds(block) - firstBlock, seconds(now) - firstNow, 0.1);

    float absolute = -1;
    float relative = -1;
    uint32_t thread = 0;
    EXPECT_EQ(sonetrix_engine_ModuleUsage(handle, "system", &absolute, &relative, &thread), 0);
    EXPECT_FLOAT_EQ(relative, 100);
    EXPECT_TRUE(std::filesystem::exists("/proc/self/task/" + std::to_string(thread)));
    EXPECT_NE(sonetrix_engine_ModuleUsage(handle, "none", &absolute, &relative, &thread), 0);
}

/// Every hundredth block takes twelve times what it has. Finds the longest row of blocks without a pause before them.
class SlowNowAndThen final : public BlockObserver {
public:
    void blockProcessed(const Plan &) noexcept override {
        const int64_t now = nanosecondsOf(CLOCK_MONOTONIC);
        hurried_ = now - before_ < 1'000'000 ? hurried_ + 1 : 0;
        longestRow_ = std::max(longestRow_.load(), hurried_);
        if (++blocks_ % 100 == 0)
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
        before_ = nanosecondsOf(CLOCK_MONOTONIC);
    }
    int blocks() const { return blocks_; }
    int longestRow() const { return longestRow_; }

private:
    int64_t before_ = 0;
    int hurried_ = 0;
    std::atomic<int> longestRow_{0};
    std::atomic<int> blocks_{0};
};

TEST_F(EngineLifeTest, lateBlocksAreXrunsAndTheGridStartsAnew) {
    SlowNowAndThen slow;
    start({.rate = 48000, .block = 240});
    engine->audioPath().setObserver(&slow);
    ASSERT_TRUE(eventually([&] { return slow.blocks() >= 350; }));
    EXPECT_GE(sonetrix_engine_DriverGetXRun(handle), 3);
    EXPECT_GE(slow.longestRow(), 1);
    EXPECT_LE(slow.longestRow(), 4); // on the old grid it would be the eleven that were due meanwhile
    EXPECT_EQ(get("engine.xruns")->find("engine.xruns")->type, SONETRIX_VALUE_UINT32);
    engine->join();
}

TEST_F(EngineLifeTest, parametersAreTypedAndBounded) {
    start();
    ASSERT_EQ(add("amp", "amp_mono"), 0);
    ASSERT_EQ(add("echo", "delay_5s"), 0);
    const auto level = static_cast<int32_t>(sonetrix_log_GetLogLevel());
    EXPECT_TRUE(identical(*get("engine.rate")->find("engine.rate"), valueRecord(uint32_t{48000})));
    EXPECT_TRUE(identical(*get("engine.log.level")->find("engine.log.level"), valueRecord(level)));
    EXPECT_TRUE(get("engine")->empty());
    EXPECT_TRUE(get("no.such")->empty());
    EXPECT_TRUE(get("engine.offline.run")->empty());
    EXPECT_FALSE(set("engine.rate", uint32_t{44100}));
    EXPECT_TRUE(set("engine.log.level", SONETRIX_LOG_ERROR + 0));
    EXPECT_EQ(sonetrix_log_GetLogLevel(), sonetrix_log_level_t{SONETRIX_LOG_ERROR});
    EXPECT_FALSE(set("engine.log.level", SONETRIX_LOG_FATAL + 1));
    EXPECT_FALSE(set("engine.log.level", -1));
    EXPECT_TRUE(set("engine.log.level", level));
    EXPECT_TRUE(set("amp.gain", std::nextafter(0.1F, 1.0F)));
    EXPECT_TRUE(identical(*get("amp.gain")->find("amp.gain"), valueRecord(std::nextafter(0.1F, 1.0F))));
    EXPECT_FALSE(set("amp.gain", 0.5)); // a double
    EXPECT_FALSE(set("amp.gain", int32_t{1}));
    EXPECT_FALSE(set("amp.gain", -0.5F));
    EXPECT_FALSE(set("amp.gain", NAN));
    EXPECT_FALSE(set("amp.gain", INFINITY));

    ListKeyValue many;
    many.add("echo.delay_seconds", 5.5F);
    many.add("echo.dry_wet_balance", 1.0F);
    many.add("none.x", 1.0F);
    many.add("amp.gain", 2.0F);
    ListKeyValue written;
    EXPECT_NE(sonetrix_engine_SetParamsFullCli(handle, &many, &written), 0);
    ASSERT_EQ(written.size(), 2U);
    EXPECT_STREQ(written[0].key, "echo.dry_wet_balance");
    EXPECT_STREQ(written[1].key, "amp.gain");
}

TEST_F(EngineLifeTest, editsFromSeveralThreadsWhileItRuns) {
    start({.rate = 48000, .block = 32});
    std::vector<std::jthread> editors;
    editors.reserve(3);
    for (int i = 0; i < 3; ++i)
        editors.emplace_back([&, name = "m" + std::to_string(i)] {
            const std::string output = name + ":output";
            const std::string input = name + ":input";
            for (int round = 0; round < 100; ++round) {
                EXPECT_EQ(add(name.c_str(), "amp_mono"), 0);
                EXPECT_EQ(link(output.c_str(), input.c_str()), 0);
                link(output.c_str(), "system:playback_1");
                link("system:capture_1", "system:playback_2");
                EXPECT_TRUE(set((name + ".gain").c_str(), static_cast<float>(round)));
                link("system:playback_1", nullptr);
                link("system:playback_2", nullptr);
                EXPECT_THAT(modules(), testing::Contains(name));
                EXPECT_EQ(get((name + ".").c_str())->size(), 1U);
                EXPECT_EQ(sonetrix_engine_ModuleDelete(handle, name.c_str()), 0);
            }
        });
    editors.clear();
    EXPECT_THAT(modules(), testing::ElementsAre("system"));
}

TEST_F(EngineLifeTest, thousandsOfModules) {
    start({.rate = 48000, .block = 8192});
    constexpr int count = 5000;
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(add(("m" + std::to_string(i)).c_str(), "amp_mono"), 0);
    for (int i = 1; i < count; ++i)
        ASSERT_EQ(
            link(("m" + std::to_string(i - 1) + ":output").c_str(), ("m" + std::to_string(i) + ":input").c_str()), 0);
    EXPECT_EQ(modules().size(), count + 1U);
    engine->graph().flush();
    for (int i = 0; i < count; ++i)
        ASSERT_EQ(sonetrix_engine_ModuleDelete(handle, ("m" + std::to_string(i)).c_str()), 0);
}

} // namespace

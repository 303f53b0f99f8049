#include "engine_fixture.h"

#include <atomic>
#include <cmath>
#include <fstream>
#include <iterator>
#include <sys/wait.h>

using namespace sonetrix::dev;

namespace {

class OfflineTest : public EngineTest {
public:
    std::filesystem::path out = directory / "out.wav";

    /// A mono file whose samples count up, so that every one tells its place.
    std::filesystem::path ramp(int rate, size_t frames) const {
        SF_INFO info{};
        info.samplerate = rate;
        info.channels = 1;
        info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
        std::vector<float> samples(frames);
        for (size_t i = 0; i < frames; ++i)
            samples[i] = static_cast<float>(i + 1);
        SNDFILE *file = sf_open((directory / "in.wav").c_str(), SFM_WRITE, &info);
        sf_writef_float(file, samples.data(), static_cast<sf_count_t>(frames));
        sf_close(file);
        return directory / "in.wav";
    }
    void makeTone(float frequency, float amplitude, float gain) {
        ListKeyValue tone;
        tone.add("frequency", frequency);
        tone.add("amplitude", amplitude);
        ListKeyValue level;
        level.add("gain", gain);
        ASSERT_EQ(add("amp", "amp_mono", &level), 0);
        ASSERT_EQ(add("tone", "sine_fcac", &tone), 0);
        ASSERT_EQ(link("tone:output", "amp:input"), 0);
        ASSERT_EQ(link("amp:output", "system:playback_1"), 0);
    }
};

double rms(const std::vector<float> &samples, size_t from, size_t to) {
    double sum = 0;
    for (size_t i = from; i < to; ++i)
        sum += static_cast<double>(samples[i]) * static_cast<double>(samples[i]);
    return std::sqrt(sum / static_cast<double>(to - from));
}

TEST_F(OfflineTest, toneHasItsFrequencyAndLevelFromTheFirstSample) {
    start({.rate = 48000, .block = 256, .record = out, .offlineSeconds = 2});
    EXPECT_EQ(engine->driver().name(), std::string("offline"));
    makeTone(1000, 0.5F, 0.5F);
    EXPECT_TRUE(set("engine.offline.run", 1.0F));
    EXPECT_TRUE(set("amp.gain", 1.0F));
    EXPECT_TRUE(set("engine.offline.run", 0.5F));
    EXPECT_TRUE(identical(*get("engine.offline.left")->find("engine.offline.left"), valueRecord(0.5)));
    EXPECT_FALSE(set("engine.offline.run", 0.6F));
    EXPECT_FALSE(set("engine.offline.run", -0.1F));
    engine->join(); // renders the rest
    EXPECT_FALSE(set("engine.offline.run", 0.0F));

    const auto left = channel(out, 0);
    ASSERT_EQ(left.size(), 96000U);
    EXPECT_NEAR(rms(left, 0, 48000), 0.25 / std::sqrt(2.0), 1e-4);
    EXPECT_NEAR(rms(left, 48128, 96000), 0.5 / std::sqrt(2.0), 1e-4); // from the block after the first second
    int crossings = 0;
    for (size_t i = 1; i < left.size(); ++i)
        crossings += left[i - 1] < 0 && left[i] >= 0;
    EXPECT_NEAR(crossings, 2000, 1);
    EXPECT_EQ(rms(channel(out, 1), 0, 96000), 0.0);
    EXPECT_EQ(sonetrix_engine_DriverGetXRun(handle), 0);
}

TEST_F(OfflineTest, inputPlaysOnceSampleForSampleAndRunsAddUp) {
    const auto in = ramp(44100, 5000);
    start({.rate = 44100, .block = 64, .input = in, .record = out, .offlineSeconds = 0.2501});
    ASSERT_EQ(link("system:capture_1", "system:playback_2"), 0);
    for (int i = 0; i < 25; ++i)
        EXPECT_TRUE(set("engine.offline.run", 0.01F)) << i;
    engine->join();
    const auto right = channel(out, 1);
    ASSERT_EQ(right.size(), 11029U);
    for (size_t i = 0; i < right.size(); ++i)
        ASSERT_EQ(right[i], i < 5000 ? static_cast<float>(i + 1) : 0.0F) << i;
}

TEST_F(OfflineTest, sameRunSameFile) {
    std::string files[2];
    for (std::string &file : files) {
        start({.rate = 48000, .block = 256, .record = out, .offlineSeconds = 0.5});
        makeTone(440, 0.7F, 0.3F);
        engine.reset();
        std::ifstream stream(out, std::ios::binary);
        file.assign(std::istreambuf_iterator<char>(stream), {});
    }
    EXPECT_GT(files[0].size(), 48000U * 4);
    EXPECT_EQ(files[0], files[1]);
}

TEST_F(OfflineTest, inputOfAnotherRateIsRefused) {
    std::string error;
    EXPECT_EQ(Engine::create({.rate = 48000, .input = ramp(44100, 10)}, ListKeyValue(), error), nullptr);
    EXPECT_NE(error.find("44100"), std::string::npos);
}

TEST_F(OfflineTest, recordingIsCompleteWhenTheProcessExits) {
    for (const double offlineSeconds : {0.0, 1.0}) {
        const pid_t child = fork();
        if (child == 0) {
            start({.rate = 48000, .block = 256, .record = out, .offlineSeconds = offlineSeconds});
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
            std::exit(7);
        }
        int status = 0;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 7);
        const size_t frames = channel(out, 0).size();
        if (offlineSeconds > 0)
            EXPECT_EQ(frames, 48000U);
        else
            EXPECT_GE(frames, 4800U);
    }
}

class BlockCounter final : public BlockObserver {
public:
    void blockProcessed(const Plan &) noexcept override { ++blocks; }
    std::atomic<size_t> blocks{0};
};

TEST_F(OfflineTest, realTimeInputReachesTheRecordingWithoutGaps) {
    start({.rate = 48000, .block = 256, .input = ramp(48000, 24000), .record = out});
    ASSERT_EQ(link("system:capture_1", "system:playback_1"), 0);
    BlockCounter counter;
    engine->audioPath().setObserver(&counter);
    ASSERT_TRUE(eventually([&] { return counter.blocks * 256 > 24000; }));
    engine->join();
    const auto left = channel(out, 0);
    const auto begin = std::ranges::find_if(left, [](float sample) { return sample != 0; });
    ASSERT_LT(begin, left.end());
    for (auto sample = begin; sample < left.end() && *sample != 0; ++sample)
        ASSERT_EQ(*sample, *begin + static_cast<float>(sample - begin));
    EXPECT_NE(std::ranges::find(left, 24000.0F), left.end());
    EXPECT_TRUE(identical(*get("engine.record.dropped")->find("engine.record.dropped"), valueRecord(uint32_t{0})));
    EXPECT_TRUE(identical(*get("engine.play.missed")->find("engine.play.missed"), valueRecord(uint32_t{0})));
}

} // namespace

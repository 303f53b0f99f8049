// How long the development engine's audio thread takes for a block, and how late it begins, while a script runs.
//   block_times LIBRARY SCRIPT     three lines: xruns; then processing and lateness, each as median, 99th and 99.9th
//                                  percentile and worst, in nanoseconds
#include "clock.h"
#include "engine.h"
#include "program/cli_module.h"

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace sonetrix::dev;

namespace {

// What the audio thread notes at the end of every block, in nanoseconds.
class BlockTimes {
public:
    BlockTimes() {
        processing_.reserve(maximum);
        lateness_.reserve(maximum);
    }

    void add(const Driver &driver) {
        if (processing_.size() < maximum) {
            processing_.push_back(nanosecondsOf(CLOCK_MONOTONIC) - driver.blockStart());
            lateness_.push_back(driver.blockLateness());
        }
    }

    // Once the audio thread has ended.
    void print(uint32_t xruns) {
        std::printf("%u\n", xruns);
        print(processing_);
        print(lateness_);
    }

private:
    static constexpr size_t maximum = 10'000'000;

    static void print(std::vector<int64_t> &nanoseconds) {
        std::sort(nanoseconds.begin(), nanoseconds.end());
        for (const double share : {0.5, 0.99, 0.999, 1.0}) {
            const auto index = static_cast<size_t>(share * static_cast<double>(nanoseconds.size() - 1));
            std::printf("%lld ", static_cast<long long>(nanoseconds[index]));
        }
        std::printf("\n");
    }

    std::vector<int64_t> processing_;
    std::vector<int64_t> lateness_;
};

void measure(const char *library, const char *script) {
    CliModule module(library);
    ListKeyValue parameters;
    parameters.add("python.file", std::string(script));
    BlockTimes times;
    const auto afterBlock = [&times] { times.add(Engine::current()->driver()); };
    Engine engine({.format = {.block = 64}, .afterBlock = afterBlock}, std::move(parameters));
    engine.setStopHook([&] { module.stop(); });
    engine.start();
    if (!module.construct(engine.startParameters()))
        throw std::runtime_error("no module");
    module.start();
    engine.requestStop();
    module.destroy();
    engine.join();
    times.print(engine.driver().xruns());
}

} // namespace

int main(int count, char **arguments) {
    if (count != 3) {
        std::fprintf(stderr, "block_times LIBRARY SCRIPT\n");
        return 2;
    }
    try {
        measure(arguments[1], arguments[2]);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "block_times: %s\n", error.what());
        return 1;
    }
    return 0;
}

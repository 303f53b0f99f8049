// How long the development engine's audio thread takes for a block while a script runs.
//   block_times LIBRARY SCRIPT     one line: blocks, median, 99th and 99.9th percentile and longest, in nanoseconds
#include "clock.h"
#include "engine.h"
#include "program/cli_module.h"

#include <algorithm>
#include <cstdio>
#include <vector>

using namespace sonetrix::dev;

namespace {

class BlockTimes {
public:
    BlockTimes() { nanoseconds_.reserve(maximum); }

    // At the end of every block, on the audio thread.
    void add(int64_t nanoseconds) {
        if (nanoseconds_.size() < maximum)
            nanoseconds_.push_back(nanoseconds);
    }

    // Once the audio thread has ended.
    void print() {
        std::sort(nanoseconds_.begin(), nanoseconds_.end());
        const auto at = [this](double share) {
            return static_cast<long long>(
                nanoseconds_[static_cast<size_t>(share * static_cast<double>(nanoseconds_.size() - 1))]);
        };
        std::printf("%zu %lld %lld %lld %lld\n", nanoseconds_.size(), at(0.5), at(0.99), at(0.999), at(1));
    }

private:
    static constexpr size_t maximum = 10'000'000;

    std::vector<int64_t> nanoseconds_;
};

int measure(const char *library, const char *script) {
    std::string error;
    CliModule module;
    ListKeyValue parameters;
    parameters.add("python.file", std::string(script));
    BlockTimes times;
    const auto afterBlock = [&times] {
        times.add(nanosecondsOf(CLOCK_REALTIME) - Engine::current()->driver().blockBegan());
    };
    const auto engine = module.load(library, error)
                            ? Engine::create({.block = 64, .afterBlock = afterBlock}, std::move(parameters), error)
                            : nullptr;
    if (engine == nullptr) {
        std::fprintf(stderr, "block_times: %s\n", error.c_str());
        return 1;
    }
    engine->setStopHook([&] { module.stop(); });
    if (!engine->start(error) || !module.construct(engine->startParameters(), error)) {
        std::fprintf(stderr, "block_times: %s\n", error.c_str());
        return 1;
    }
    module.start();
    engine->requestStop();
    module.destroy();
    engine->join();
    times.print();
    return 0;
}

} // namespace

int main(int count, char **arguments) {
    if (count != 3) {
        std::fprintf(stderr, "block_times LIBRARY SCRIPT\n");
        return 2;
    }
    return measure(arguments[1], arguments[2]);
}

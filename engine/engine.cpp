#include "engine.h"

#include "driver/clock_driver.h"
#include "driver/device_driver.h"
#include "driver/offline_driver.h"
#include "graph/refusal.h"
#include "thread.h"

#include <cstdlib>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/resource.h>
#include <system_error>
#include <utility>

namespace sonetrix::dev {

namespace {

constexpr int longestOfflineRun = 10'000'000; // seconds; keeps all frame counts exact

constexpr double longestSmoothing = 10; // seconds

std::atomic<Engine *> currentEngine{nullptr};

std::string objection(const Engine::Options &options) {
    if (options.rate < 8000 || options.rate > 768000)
        return "the frame rate must be from 8000 to 768000";
    if (options.block < 16 || options.block > 8192)
        return "the block must be from 16 to 8192 frames";
    if (!(options.offlineSeconds >= 0 && options.offlineSeconds <= longestOfflineRun))
        return "an offline run must be from 0 to " + std::to_string(longestOfflineRun) + " seconds long";
    if (options.device && options.offlineSeconds > 0)
        return "an offline run has no sound device";
    if (Engine::current() != nullptr)
        return "the process has an engine already";
    return {};
}

std::shared_ptr<SystemModule> makeSystem(const Engine::Options &options) {
    auto system = std::make_shared<SystemModule>(options.rate, options.block, options.offlineSeconds > 0);
    system->play(options.input);
    system->record(options.record);
    return system;
}

std::chrono::nanoseconds blockTime(const Engine::Options &options) {
    return std::chrono::nanoseconds(std::chrono::seconds(options.block)) / options.rate;
}

/// So that the audio thread never waits for a page. Only where there is no limit to run into later.
void lockMemory() noexcept {
    constexpr rlimit none{RLIM_INFINITY, RLIM_INFINITY};
    if (::setrlimit(RLIMIT_MEMLOCK, &none) == 0)
        ::mlockall(MCL_CURRENT | MCL_FUTURE);
}

Parameter logLevelParameter() {
    return {"log.level", [] { return Value(valueRecord(static_cast<int32_t>(sonetrix_log_GetLogLevel()))); },
        {SONETRIX_VALUE_INT32, SONETRIX_LOG_TRACE, SONETRIX_LOG_FATAL},
        [](const sonetrix_value_t &level) {
            sonetrix_log_SetLogLevel(static_cast<sonetrix_log_level_t>(level.as.int32));
        }};
}

} // namespace

Engine *Engine::current() noexcept { return currentEngine.load(std::memory_order_acquire); }

std::unique_ptr<Engine> Engine::create(const Options &options, ListKeyValue startParameters, std::string &error) {
    try {
        error = objection(options);
        if (!error.empty())
            return nullptr;
        std::unique_ptr<Engine> engine(new Engine(options, std::move(startParameters)));
        Engine *none = nullptr;
        if (!currentEngine.compare_exchange_strong(none, engine.get())) {
            error = "the process has an engine already";
            return nullptr;
        }
        finishBeforeExitHandlers();
        return engine;
    } catch (const std::exception &failure) {
        error = failure.what();
        return nullptr;
    }
}

Engine::Engine(const Options &options, ListKeyValue startParameters)
    : options_(options),
      startParameters_(std::move(startParameters)),
      catalogue_(LadspaCatalogue::standardDirectories(), options.rate, finishBeforeExitHandlers),
      system_(makeSystem(options)),
      graph_(std::make_unique<Graph>(system_, options.rate, options.block, catalogue_, parameters_, plans_)),
      meters_(std::make_unique<Meters>(*graph_, *system_, blockTime(options))),
      notifier_(std::make_unique<Notifier>(parameters_, blockTime(options))),
      timers_(options.offlineSeconds > 0),
      driver_(makeDriver()) {
    parameters_.setListener([this](std::string_view key) { notifier_->parameterWritten(key); });
    addOwnParameters();
    if (offline_ != nullptr)
        addOfflineParameters();
}

std::unique_ptr<Driver> Engine::makeDriver() {
    const auto process = [this](uint32_t wanted) { processBlock(wanted); };
    if (options_.device) {
        auto driver = std::make_unique<DeviceDriver>(
            options_.rate, options_.block, process, *options_.device, system_->deviceBuffers());
        parameters_.add("engine",
            {readOnlyParameter("device.latency.capture", [&device = *driver] { return device.captureLatency(); }),
                readOnlyParameter(
                    "device.latency.playback", [&device = *driver] { return device.playbackLatency(); })});
        return driver;
    }
    if (options_.offlineSeconds <= 0)
        return std::make_unique<ClockDriver>(options_.rate, options_.block, process);
    const auto before = [this](std::chrono::nanoseconds rendered) {
        if (timers_.advanceTo(rendered))
            graph_->flush();
    };
    auto driver =
        std::make_unique<OfflineDriver>(options_.rate, options_.block, process, before, options_.offlineSeconds);
    offline_ = driver.get();
    return driver;
}

Engine::~Engine() {
    join();
    Engine *self = this;
    currentEngine.compare_exchange_strong(self, nullptr);
}

void Engine::addOwnParameters() {
    const Driver &driver = *driver_;
    std::vector<Parameter> own;
    own.push_back(readOnlyParameter("rate", [&driver] { return driver.rate(); }));
    own.push_back(readOnlyParameter("block", [&driver] { return driver.block(); }));
    own.push_back(readOnlyParameter("xruns", [&driver] { return driver.xruns(); }));
    own.push_back(readOnlyParameter("meters.dropped", [this] { return meters_->dropped(); }));
    own.push_back(logLevelParameter());
    own.push_back({"smoothing", [this] { return Value(valueRecord(graph_->smoothing().load())); },
        {SONETRIX_VALUE_FLOAT, 0, longestSmoothing, "s"},
        [this](const sonetrix_value_t &seconds) { graph_->smoothing() = seconds.as.float32; }});
    parameters_.add("engine", std::move(own));
    parameters_.add("engine", system_->parameters());
    parameters_.addReader("plugins", [this](auto name, ListKeyValue &result) { catalogue_.describe(name, result); });
}

void Engine::addOfflineParameters() {
    const auto asked = std::make_shared<std::atomic<float>>(0.0F);
    const auto run = [this, asked](const sonetrix_value_t &seconds) {
        if (timers_.isCalling())
            throw Refusal(statusBusy, "rendering waits for this timer");
        graph_->flush();
        if (!offline_->render(static_cast<double>(seconds.as.float32)))
            throw Refusal(statusRange, fmt::format("{:g} s are left to render", offline_->secondsLeft()));
        asked->store(seconds.as.float32);
    };
    parameters_.add("engine", {readOnlyParameter("offline.left", [this] { return offline_->secondsLeft(); }),
                                  {"offline.run", [asked] { return Value(valueRecord(asked->load())); },
                                      {SONETRIX_VALUE_FLOAT, 0, longestOfflineRun, "s"}, run}});
}

bool Engine::start(std::string &error) {
    try {
        running_ = true;
        if (offline_ == nullptr)
            lockMemory();
        for (Thread *thread : eventThreads())
            thread->start();
        driver_->start();
        stopThread_.start();
        return true;
    } catch (const std::system_error &failure) {
        running_ = false;
        error = std::string("cannot start the engine's threads: ") + failure.what();
        return false;
    }
}

// Runs the newest plan and leaves the levels of the driver's ports for the meters.
void Engine::processBlock(uint32_t wanted) noexcept {
    system_->setWanted(wanted);
    meanBlockTime_.store(static_cast<float>(plans_.acquire()->run()), std::memory_order_relaxed);
    meters_->add(system_->levels());
    if (options_.afterBlock)
        options_.afterBlock();
}

void Engine::noteWaiting() noexcept {
    constexpr uint32_t often = 4; // asks engine.waitUntilEnd ten times a second
    if (offline_ != nullptr && askedRunning_.fetch_add(1, std::memory_order_relaxed) + 1 == often) {
        graph_->flush();
        offline_->renderRest([this] { requestStop(); });
    }
}

void Engine::requestStop() noexcept {
    stopRequested_ = true;
    stopRequested_.notify_all();
}

void Engine::carryOutStop() {
    stopRequested_.wait(false);
    running_ = false;
    if (stopHook_)
        stopHook_();
    for (Thread *thread : eventThreads())
        thread->requestEnd();
    finishAudio();
    stopThread_.requestEnd();
}

// The plugins' code runs here for the last time.
void Engine::finishAudio() noexcept {
    timers_.thread().requestEnd(); // rendering waits for them
    const std::lock_guard lock(finishMutex_);
    graph_->flush();
    driver_->stop();
    system_->close();
}

bool Engine::join(std::chrono::milliseconds callbacks) {
    requestStop();
    stopThread_.join();
    running_ = false;
    const auto limit = Thread::Clock::now() + callbacks;
    for (Thread *thread : eventThreads())
        if (!thread->joinUntil(limit))
            return false;
    finishAudio();
    graph_->join();
    return true;
}

// A process that exits while the engine runs: first of all the audio ends and the recording is completed. What a plugin
// library has registered for the exit, when it was loaded, comes after that.
void Engine::finishBeforeExitHandlers() {
    const auto finish = [] {
        if (Engine *engine = current(); engine != nullptr && !isForkedChild()) {
            engine->finishAudio();
            engine->graph_->join();
        }
    };
    if (std::atexit(finish) != 0)
        throw std::runtime_error("no room for an exit handler");
}

} // namespace sonetrix::dev

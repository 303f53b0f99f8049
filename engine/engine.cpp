#include "engine.h"

#include "driver/clock_driver.h"
#include "driver/offline_driver.h"
#include "graph/refusal.h"
#include "thread.h"

#include <cstdlib>
#include <fmt/format.h>
#include <system_error>

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
        static const int registered = std::atexit(finishAtExit);
        if (registered != 0) {
            error = "no room for an exit handler";
            return nullptr;
        }
        return engine;
    } catch (const std::exception &failure) {
        error = failure.what();
        return nullptr;
    }
}

Engine::Engine(const Options &options, ListKeyValue startParameters)
    : startParameters_(std::move(startParameters)),
      catalogue_(LadspaCatalogue::standardDirectories(), options.rate),
      system_(makeSystem(options)),
      graph_(std::make_unique<Graph>(system_, options.rate, options.block, catalogue_, parameters_, plans_)),
      audioPath_(std::make_unique<AudioPath>(system_, plans_)),
      meters_(std::make_unique<Meters>(*graph_, *system_, options.rate, options.block)),
      notifier_(std::make_unique<Notifier>(parameters_, blockTime(options))) {
    if (options.offlineSeconds > 0) {
        auto driver = std::make_unique<OfflineDriver>(options.rate, options.block, *audioPath_, options.offlineSeconds);
        addOfflineParameters(*driver);
        driver_ = std::move(driver);
    } else {
        driver_ = std::make_unique<ClockDriver>(options.rate, options.block, *audioPath_);
    }
    audioPath_->setObserver(meters_.get());
    parameters_.setListener(notifier_.get());
    addOwnParameters();
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

void Engine::addOfflineParameters(OfflineDriver &driver) {
    const auto asked = std::make_shared<std::atomic<float>>(0.0F);
    const auto run = [this, &driver, asked](const sonetrix_value_t &seconds) {
        graph_->flush();
        if (!driver.render(static_cast<double>(seconds.as.float32)))
            throw Refusal(statusRange, fmt::format("{:g} s are left to render", driver.secondsLeft()));
        asked->store(seconds.as.float32);
    };
    parameters_.add("engine", {readOnlyParameter("offline.left", [&driver] { return driver.secondsLeft(); }),
                                  {"offline.run", [asked] { return Value(valueRecord(asked->load())); },
                                      {SONETRIX_VALUE_FLOAT, 0, longestOfflineRun, "s"}, run}});
}

bool Engine::start(std::string &error) {
    try {
        running_ = true;
        meters_->start();
        notifier_->start();
        timers_.start();
        driver_->start();
        stopThread_ = engineThread("sonetrix-stop", [this](const std::stop_token &) { stopThreadMain(); });
        return true;
    } catch (const std::system_error &failure) {
        running_ = false;
        error = std::string("cannot start the engine's threads: ") + failure.what();
        return false;
    }
}

void Engine::requestStop() noexcept {
    stopRequested_ = true;
    stopRequested_.notify_all();
}

void Engine::stopThreadMain() noexcept {
    stopRequested_.wait(false);
    running_ = false;
    if (stopHook_)
        stopHook_();
    meters_->requestEnd();
    notifier_->requestEnd();
    timers_.requestEnd();
    finishAudio();
}

void Engine::finishAudio() noexcept {
    graph_->flush();
    driver_->stop();
    system_->close();
}

void Engine::finishAtExit() {
    if (Engine *engine = current())
        engine->finishAudio();
}

void Engine::join() {
    requestStop();
    if (stopThread_.joinable())
        stopThread_.join();
    running_ = false;
    meters_->join();
    notifier_->join();
    timers_.join();
    finishAudio();
    graph_->join();
}

void Engine::setExitCode(int32_t code) noexcept {
    const std::lock_guard lock(exitCodeMutex_);
    exitCode_ = code;
}

std::optional<int32_t> Engine::exitCode() const noexcept {
    const std::lock_guard lock(exitCodeMutex_);
    return exitCode_;
}

} // namespace sonetrix::dev

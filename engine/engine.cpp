#include "engine.h"

#include "driver/device_driver.h"
#include "driver/offline_driver.h"
#include "refusal.h"

#include <cstdlib>
#include <fmt/format.h>
#include <linux/capability.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace sonetrix::dev {

namespace {

constexpr int longestOfflineRun = 10'000'000; // seconds; keeps all frame counts exact
constexpr double longestSmoothing = 10;       // seconds

std::atomic<Engine *> currentEngine{nullptr};

const Engine::Options &checked(const Engine::Options &options) {
    const auto require = [](bool met, const char *otherwise) {
        if (!met)
            throw std::runtime_error(otherwise);
    };
    require(options.format.rate >= 8000 && options.format.rate <= 768000, "the frame rate must be from 8000 to 768000");
    require(options.format.block >= 16 && options.format.block <= 8192, "the block must be from 16 to 8192 frames");
    require(options.offlineSeconds >= 0 && options.offlineSeconds <= longestOfflineRun,
        "an offline run must be from 0 to 10000000 seconds long");
    require(!options.device || options.offlineSeconds <= 0, "an offline run has no sound device");
    require(Engine::current() == nullptr, "the process has an engine already");
    return options;
}

/// So that the audio thread never waits for a page that it has had. Only where there is no limit to run into later.
void lockMemory() noexcept {
    __user_cap_header_struct thisThread{_LINUX_CAPABILITY_VERSION_3, 0};
    std::array<__user_cap_data_struct, _LINUX_CAPABILITY_U32S_3> may{};
    ::syscall(SYS_capget, &thisThread, may.data());
    constexpr rlimit none{RLIM_INFINITY, RLIM_INFINITY};
    if ((may[0].effective & 1U << CAP_IPC_LOCK) != 0 || ::setrlimit(RLIMIT_MEMLOCK, &none) == 0)
        ::mlockall(MCL_CURRENT | MCL_FUTURE | MCL_ONFAULT); // not the unused part of every thread's stack
}

} // namespace

Engine *Engine::current() noexcept { return currentEngine.load(std::memory_order_acquire); }

Engine::Engine(const Options &options, ListKeyValue startParameters)
    : options_(checked(options)),
      startParameters_(std::move(startParameters)),
      catalogue_(options.format.rate, finishBeforeExitHandlers),
      system_(std::make_shared<SystemModule>(options.format, options.offlineSeconds > 0)),
      graph_(system_, options.format, catalogue_, parameters_),
      meters_(graph_, *system_, options.format),
      notifier_(parameters_, options.format.blockTime()),
      timers_(options.offlineSeconds > 0),
      driver_(makeDriver()) {
    parameters_.setListener([this](const char *key) { notifier_.parameterWritten(key); });
    parameters_.add("engine", ownParameters());
    parameters_.add("plugins", {}, [this](auto name, ListKeyValue &result) { catalogue_.describe(name, result); });
    system_->play(options.input);
    system_->record(options.record);
    finishBeforeExitHandlers();
    currentEngine = this;
}

std::unique_ptr<Driver> Engine::makeDriver() {
    const auto process = [this](uint32_t wanted, int64_t time) { return processBlock(wanted, time); };
    if (options_.device)
        return makeDeviceDriver(options_.format, process, *options_.device, system_->deviceBuffers());
    if (options_.offlineSeconds <= 0)
        return std::make_unique<ClockDriver>(options_.format, process);
    const auto before = [this](std::chrono::nanoseconds rendered) {
        if (timers_.advanceTo(rendered))
            graph_.flush();
    };
    auto driver = std::make_unique<OfflineDriver>(options_.format, process, before, options_.offlineSeconds);
    offline_ = driver.get();
    return driver;
}

Engine::~Engine() {
    join();
    currentEngine = nullptr;
}

std::vector<Parameter> Engine::ownParameters() {
    const Domain fileName{SONETRIX_VALUE_STRING};
    std::vector<Parameter> own{
        {"rate", reader([this] { return options_.format.rate; })},
        {"block", reader([this] { return options_.format.block; })},
        {"xruns", reader([this] { return driver_->xruns(); })},
        {"meters.dropped", reader([this] { return meters_.dropped(); })},
        {"log.level", reader([] { return static_cast<int32_t>(sonetrix_log_GetLogLevel()); }),
            {SONETRIX_VALUE_INT32, SONETRIX_LOG_TRACE, SONETRIX_LOG_FATAL},
            [](auto level) { sonetrix_log_SetLogLevel(static_cast<sonetrix_log_level_t>(level.as.int32)); }},
        {"smoothing", reader([this] { return graph_.smoothing().load(); }),
            {SONETRIX_VALUE_FLOAT, 0, longestSmoothing, "s"},
            [this](auto seconds) { graph_.smoothing() = seconds.as.float32; }},
        {"play.file", reader([this] { return system_->player().file(); }), fileName,
            [this](auto path) { system_->play(path.as.string); }},
        {"play.missed", reader([this] { return system_->player().framesLost(); })},
        {"record.file", reader([this] { return system_->recorder().file(); }), fileName,
            [this](auto path) { system_->record(path.as.string); }},
        {"record.dropped", reader([this] { return system_->recorder().framesLost(); })},
    };
    for (Parameter &parameter : driver_->parameters())
        own.push_back(std::move(parameter));
    if (offline_ != nullptr) {
        own.push_back({"offline.left", reader([this] { return offline_->secondsLeft(); })});
        own.push_back({"offline.run", reader([this] { return rendered_.load(); }),
            {SONETRIX_VALUE_FLOAT, 0, longestOfflineRun, "s"}, [this](auto seconds) { render(seconds.as.float32); }});
    }
    return own;
}

void Engine::render(float seconds) {
    if (timers_.isCalling())
        throw Refusal(statusBusy, "rendering waits for this timer");
    graph_.flush();
    if (!offline_->render(static_cast<double>(seconds)))
        throw Refusal(statusRange, fmt::format("{:g} s are left to render", offline_->secondsLeft()));
    rendered_ = seconds;
}

void Engine::start() {
    running_ = true;
    if (offline_ == nullptr)
        lockMemory();
    try {
        for (Thread *thread : eventThreads())
            thread->start();
        driver_->start();
        stopThread_.start();
    } catch (...) {
        join();
        throw;
    }
}

// Runs the newest plan and leaves the levels of the driver's ports for the meters.
int64_t Engine::processBlock(uint32_t wanted, int64_t time) noexcept {
    system_->setWanted(wanted);
    meanBlockTime_.store(static_cast<float>(graph_.plan().run(time)), std::memory_order_relaxed);
    meters_.add(system_->levels());
    if (options_.afterBlock)
        options_.afterBlock();
    return time;
}

void Engine::noteWaiting() noexcept {
    constexpr uint32_t often = 4; // asks engine.waitUntilEnd ten times a second
    if (offline_ != nullptr && askedRunning_.fetch_add(1, std::memory_order_relaxed) + 1 == often) {
        graph_.flush();
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
    if (const auto hook = std::exchange(stopHook_, nullptr)) // once, also when this is begun again
        hook();
    for (Thread *thread : eventThreads())
        thread->requestEnd();
    finishAudio();
    stopThread_.requestEnd();
}

// The plugins' code runs here for the last time.
void Engine::finishAudio() {
    timers_.thread().requestEnd(); // rendering waits for them
    const std::lock_guard lock(finishMutex_);
    graph_.flush();
    driver_->stop();
    graph_.join();
    system_->record({});
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
    return true;
}

// A process that exits while the engine runs: first of all the audio ends and the recording is completed. What a plugin
// library has registered for the exit, when it was loaded, comes after that.
void Engine::finishBeforeExitHandlers() {
    const auto finish = [] {
        if (Engine *engine = current(); engine != nullptr && !isForkedChild())
            engine->finishAudio();
    };
    if (std::atexit(finish) != 0)
        throw std::runtime_error("no room for an exit handler");
}

} // namespace sonetrix::dev

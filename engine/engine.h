#pragma once

#include "clock.h"
#include "driver/driver.h"
#include "events/meters.h"
#include "events/notifier.h"
#include "events/timers.h"
#include "graph/graph.h"
#include "graph/parameters.h"
#include "graph/system_module.h"
#include "ladspa/ladspa_catalogue.h"
#include "lists/lists.h"
#include "thread.h"

namespace sonetrix::dev {

class OfflineDriver;

/// The process's engine: at most one at a time, found by the C interface through `current`.
///
/// Life: `start`, `requestStop` by anybody, `join`, end. A thread of the engine's own carries the stop out:
/// the engine counts as not running, the stop hook is called, the driver ends and the recording is completed. The owner
/// of a module that the hook calls keeps that module until it has told it to end, and joins only then. When the process
/// exits while the engine runs, the driver ends and the recording is completed all the same.
class Engine {
public:
    struct Options {
        AudioFormat format{};
        std::filesystem::path input{};       ///< sound file played into the capture ports
        std::filesystem::path record{};      ///< sound file that takes what the playback ports play
        std::optional<std::string> device{}; ///< drives the engine instead of the clock; "": the default device
        double offlineSeconds = 0;           ///< above 0: an offline run of that length
        std::function<void()> afterBlock{};  ///< called on the audio thread: for measurements
    };

    static Engine *current() noexcept;

    /// Throws std::runtime_error when the options cannot be met or the process has an engine.
    Engine(const Options &options, ListKeyValue startParameters);
    ~Engine();

    /// Before `start`.
    void setStopHook(std::function<void()> hook) { stopHook_ = std::move(hook); }
    /// Throws std::system_error when there are no threads to be had.
    void start();
    void requestStop() noexcept;
    /// Requests the stop and waits for its end; for callbacks in progress so long. False when one has not come back:
    /// its thread goes on, but the audio has ended.
    bool join(std::chrono::milliseconds callbacks = std::chrono::hours(1));

    [[nodiscard]] bool isRunning() const noexcept { return running_; }
    /// A script has asked for that; `otherwise`: it has called something else. One that keeps asking and does nothing
    /// else waits for the end, to which an offline engine then renders.
    void noteWaiting() noexcept;
    void noteOtherwise() noexcept { askedRunning_.store(0, std::memory_order_relaxed); }
    [[nodiscard]] bool stopRequested() const noexcept { return stopRequested_; }
    void setExitCode(int32_t code) noexcept { exitCode_ = code; }
    /// Whether a recording has been cut short.
    [[nodiscard]] bool hasRecordingFailed() const noexcept { return system_->recorder().hasFailed(); }
    [[nodiscard]] std::optional<int32_t> exitCode() const noexcept { return exitCode_; }

    /// Not changed any more.
    ListKeyValue &startParameters() noexcept { return startParameters_; }
    Parameters &parameters() noexcept { return parameters_; }
    Driver &driver() noexcept { return *driver_; }
    LadspaCatalogue &catalogue() noexcept { return catalogue_; }
    Graph &graph() noexcept { return graph_; }
    Notifier &notifier() noexcept { return notifier_; }
    Timers &timers() noexcept { return timers_; }
    Meters &meters() noexcept { return meters_; }
    /// Mean time that all modules together take per block, in seconds.
    [[nodiscard]] float meanBlockTime() const noexcept { return meanBlockTime_.load(std::memory_order_relaxed); }

private:
    static void finishBeforeExitHandlers();
    std::unique_ptr<Driver> makeDriver();
    std::vector<Parameter> ownParameters();
    void render(float seconds);
    int64_t processBlock(uint32_t wanted, int64_t time) noexcept;
    std::array<Thread *, 3> eventThreads() { return {&meters_.thread(), &notifier_.thread(), &timers_.thread()}; }
    void carryOutStop();
    void finishAudio();

    const Options options_;
    ListKeyValue startParameters_;
    Parameters parameters_;
    LadspaCatalogue catalogue_;
    std::shared_ptr<SystemModule> system_;
    Graph graph_;
    Meters meters_;
    Notifier notifier_;
    Timers timers_;
    std::atomic<float> meanBlockTime_{0};
    OfflineDriver *offline_ = nullptr; // the driver, if it is one
    std::atomic<float> rendered_{0};   // seconds that were asked for last
    std::unique_ptr<Driver> driver_;   // the last of the audio's: its thread uses the others

    std::function<void()> stopHook_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> running_{false};
    std::atomic<uint32_t> askedRunning_{0};
    std::atomic<std::optional<int32_t>> exitCode_{std::nullopt};
    std::mutex finishMutex_;
    Thread stopThread_{"sonetrix-stop", [this](const std::stop_token & /*stop*/) { carryOutStop(); }};
};

} // namespace sonetrix::dev

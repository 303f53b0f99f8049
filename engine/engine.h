#pragma once

#include "driver/driver.h"
#include "events/meters.h"
#include "events/notifier.h"
#include "events/timer_service.h"
#include "graph/audio_path.h"
#include "graph/graph.h"
#include "graph/parameters.h"
#include "ladspa/ladspa_catalogue.h"
#include "lists/lists.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace sonetrix::dev {

class OfflineDriver;

/// The process's engine: at most one at a time, found by the C interface through `current`.
///
/// Life: `create`, `start`, `requestStop` by anybody, `join`, end. A thread of the engine's own carries the stop out:
/// the engine counts as not running, the stop hook is called, the driver ends and the recording is completed. The owner
/// of a module that the hook calls keeps that module until it has told it to end, and joins only then. When the process
/// exits while the engine runs, the driver ends and the recording is completed all the same.
class Engine {
public:
    struct Options {
        uint32_t rate = 48000;
        uint32_t block = 256;
        std::filesystem::path input{};  ///< sound file played into the capture ports
        std::filesystem::path record{}; ///< sound file that takes what the playback ports play
        double offlineSeconds = 0;      ///< above 0: an offline run of that length
    };

    /// Null with a reason in `error` when the options cannot be met or the process has an engine.
    static std::unique_ptr<Engine> create(const Options &options, ListKeyValue startParameters, std::string &error);
    static Engine *current() noexcept;

    Engine(const Engine &) = delete;
    Engine &operator=(const Engine &) = delete;
    ~Engine();

    /// Before `start`.
    void setStopHook(std::function<void()> hook) { stopHook_ = std::move(hook); }
    bool start(std::string &error);
    void requestStop() noexcept;
    /// Requests the stop and waits for its end.
    void join();

    [[nodiscard]] bool isRunning() const noexcept { return running_; }
    [[nodiscard]] bool stopRequested() const noexcept { return stopRequested_; }
    void setExitCode(int32_t code) noexcept;
    [[nodiscard]] std::optional<int32_t> exitCode() const noexcept;

    /// Not changed after `create`.
    ListKeyValue &startParameters() noexcept { return startParameters_; }
    Parameters &parameters() noexcept { return parameters_; }
    Driver &driver() noexcept { return *driver_; }
    LadspaCatalogue &catalogue() noexcept { return catalogue_; }
    Graph &graph() noexcept { return *graph_; }
    AudioPath &audioPath() noexcept { return *audioPath_; }
    Notifier &notifier() noexcept { return *notifier_; }
    TimerService &timers() noexcept { return timers_; }
    Meters &meters() noexcept { return *meters_; }

private:
    Engine(const Options &options, ListKeyValue startParameters);

    static void finishAtExit();
    void addOwnParameters();
    void addOfflineParameters(OfflineDriver &driver);
    void stopThreadMain() noexcept;
    void finishAudio() noexcept;

    ListKeyValue startParameters_;
    Parameters parameters_;
    LadspaCatalogue catalogue_;
    PlanExchange plans_;
    std::shared_ptr<SystemModule> system_;
    std::unique_ptr<Graph> graph_;
    std::unique_ptr<AudioPath> audioPath_;
    std::unique_ptr<Meters> meters_;
    std::unique_ptr<Notifier> notifier_;
    TimerService timers_;
    std::unique_ptr<Driver> driver_; // the last of the audio's: its thread uses the others

    std::function<void()> stopHook_;
    std::jthread stopThread_;
    std::atomic<bool> stopRequested_{false};
    std::atomic<bool> running_{false};

    mutable std::mutex exitCodeMutex_;
    std::optional<int32_t> exitCode_;
};

} // namespace sonetrix::dev

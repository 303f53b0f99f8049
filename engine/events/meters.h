#pragma once

#include "clock.h"
#include "events/callback_registry.h"
#include "files/ring.h"
#include "graph/system_module.h"
#include "lists/lists.h"
#include "thread.h"

namespace sonetrix::dev {

class Graph;

/// The engine's meters, with keys `module.name`: peak and mean level of the system module's ports, the control outputs
/// of plugins, and debug meters that anybody sets. Slow ones are emitted ten times a second; fast ones once per block,
/// at most a hundred times a second. Levels are those since the last emission of the same kind.
///
/// The audio thread leaves the levels of every block in a ring; when that is full they are dropped and counted.
class Meters {
public:
    /// `graph` must outlive the thread.
    Meters(const Graph &graph, const SystemModule &system, const AudioFormat &format);

    Thread &thread() noexcept { return thread_; }

    static bool isType(sonetrix_module_meters_type type) noexcept { return type <= SONETRIX_METERS_FAST; }
    // All types below are ones for which that holds.

    CallbackRegistry<sonetrix_listCallback_t> &callbacks(sonetrix_module_meters_type type) noexcept {
        return kinds_[type].callbacks;
    }

    void setDebugMeter(sonetrix_module_meters_type type, const char *key, const sonetrix_value_t &value);
    bool removeDebugMeter(sonetrix_module_meters_type type, std::string_view key);

    /// Levels as last emitted and everything else as it is now, of one module, or of all when the name is empty.
    [[nodiscard]] ListKeyValue read(sonetrix_module_meters_type type, std::string_view module) const;
    /// Descriptions in place of values, for all modules.
    [[nodiscard]] ListKeyValue descriptions(sonetrix_module_meters_type type) const;

    /// There is one meter manager at most.
    bool claimManager() noexcept { return !hasManager_.exchange(true); }
    bool releaseManager() noexcept { return hasManager_.exchange(false); }
    [[nodiscard]] bool hasManager() const noexcept { return hasManager_; }

    /// Audio thread: the levels of a block.
    void add(const SystemModule::Levels &levels) noexcept;
    /// Blocks whose levels were dropped.
    [[nodiscard]] uint32_t dropped() const noexcept { return dropped_.load(std::memory_order_relaxed); }

private:
    using Levels = SystemModule::Levels;
    struct Kind {
        std::chrono::nanoseconds period = std::chrono::milliseconds(100);
        Thread::Clock::time_point due = Thread::Clock::now();
        Levels gathered{};   // mean squares added up
        uint32_t blocks = 0; // in `gathered`
        Levels emitted{};
        std::map<std::string, Value, std::less<>> debugMeters;
        CallbackRegistry<sonetrix_listCallback_t> callbacks;
    };

    void round(const std::stop_token &stop);
    void gather();
    void emit(sonetrix_module_meters_type type);
    template <class Shown>
    ListKeyValue collect(sonetrix_module_meters_type type, std::string_view module, Shown shown) const;

    const Graph &graph_;
    std::array<std::string, std::tuple_size_v<Levels>> portKeys_;

    Ring<Levels> levels_; // audio thread to meters thread
    std::atomic<uint32_t> dropped_{0};

    mutable std::mutex mutex_; // guards the kinds' levels and debug meters
    std::array<Kind, 2> kinds_;
    std::atomic<bool> hasManager_{false};
    Thread thread_{"sonetrix-meters", [this](const std::stop_token &stop) { round(stop); }};
};

} // namespace sonetrix::dev

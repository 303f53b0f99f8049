#include "events/meters.h"

#include "graph/graph.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace sonetrix::dev {

namespace {

using namespace std::chrono_literals;

constexpr auto shortestPeriod = 10ms;
constexpr auto slowPeriod = 100ms;
constexpr size_t ringBlocks = 1024;
constexpr size_t floatsPerBlock = sizeof(SystemModule::Levels) / sizeof(float);

bool belongsTo(std::string_view key, std::string_view module) noexcept {
    return module.empty() || (key.starts_with(module) && (key.size() == module.size() || key[module.size()] == '.'));
}

/// "module:port" as the beginning of a meter's key
std::string portKey(std::string port) {
    std::ranges::replace(port, ':', '.');
    return port;
}

/// The next due time from now on; those that were missed are left out.
Thread::Clock::time_point nextOnGrid(Thread::Clock::time_point due, std::chrono::nanoseconds period) {
    const auto late = std::max<std::chrono::nanoseconds>(Thread::Clock::now() - due, 0ns);
    return due + period * (late / period + 1);
}

} // namespace

Meters::Meters(const Graph &graph, const SystemModule &system, std::chrono::nanoseconds block)
    : graph_(graph),
      fastPeriod_(std::max<std::chrono::nanoseconds>(shortestPeriod, block)),
      levels_(ringBlocks * floatsPerBlock) {
    size_t port = 0;
    for (const auto *names : {&system.sources(), &system.sinks()})
        for (const std::string &name : *names)
            portKeys_.at(port++) = portKey(name);
}

void Meters::add(const SystemModule::Levels &levels) noexcept {
    const auto floats = std::bit_cast<std::array<float, floatsPerBlock>>(levels);
    if (levels_.room() < floats.size())
        dropped_.fetch_add(1, std::memory_order_relaxed);
    else
        levels_.write(floats);
}

void Meters::round(const std::stop_token &stop) {
    nextFast_ = nextOnGrid(nextFast_, fastPeriod_);
    thread_.pause(stop, nextFast_);
    if (stop.stop_requested())
        return;
    gather();
    emit(SONETRIX_METERS_FAST);
    if (Thread::Clock::now() >= nextSlow_) {
        nextSlow_ = nextOnGrid(nextSlow_, slowPeriod);
        emit(SONETRIX_METERS_SLOW);
    }
}

void Meters::gather() {
    const std::lock_guard lock(mutex_);
    while (levels_.available() >= floatsPerBlock) {
        std::array<float, floatsPerBlock> floats;
        levels_.read(floats);
        const auto block = std::bit_cast<BlockLevels>(floats);
        for (Kind &kind : kinds_) {
            ++kind.blocks;
            for (size_t port = 0; port < block.size(); ++port) {
                kind.gathered[port].peak = std::max(kind.gathered[port].peak, block[port].peak);
                kind.gathered[port].meanSquare += block[port].meanSquare;
            }
        }
    }
}

void Meters::emit(sonetrix_module_meters_type type) {
    Kind &kind = kinds_[type];
    {
        const std::lock_guard lock(mutex_);
        if (kind.blocks != 0) {
            for (PortLevel &level : kind.gathered) {
                level.meanSquare /= static_cast<float>(kind.blocks);
                if (std::isnan(level.meanSquare))
                    level.peak = level.meanSquare;
            }
            kind.emitted = std::exchange(kind.gathered, {});
            kind.blocks = 0;
        }
    }
    if (kind.callbacks.empty())
        return;
    ListKeyValue meters = read(type, "");
    kind.callbacks.callAll(&meters);
}

template <class Visit>
void Meters::forEachMeter(sonetrix_module_meters_type type, std::string_view module, Visit visit) const {
    if (belongsTo(SystemModule::moduleName, module)) {
        BlockLevels levels;
        {
            const std::lock_guard lock(mutex_);
            levels = kinds_[type].emitted;
        }
        for (size_t port = 0; port < levels.size(); ++port) {
            visit(portKeys_[port] + ".peak", valueRecord(levels[port].peak), "highest magnitude; full scale is 1");
            visit(portKeys_[port] + ".mean", valueRecord(std::sqrt(levels[port].meanSquare)),
                "root mean square; full scale is 1");
        }
    }
    const auto visitModule = [&](const Module &one) {
        const auto &names = one.controlOutputNames();
        for (size_t i = 0; i < names.size(); ++i)
            visit(one.name() + '.' + names[i], valueRecord(one.controlOutput(i)), "control output of the plugin");
    };
    if (module.empty()) {
        for (const auto &one : graph_.modules())
            visitModule(*one.module);
    } else if (const auto one = graph_.module(module)) {
        visitModule(*one);
    }
    const std::lock_guard lock(mutex_);
    for (const auto &[key, value] : kinds_[type].debugMeters)
        if (belongsTo(key, module))
            visit(key, value, "debug meter");
}

ListKeyValue Meters::read(sonetrix_module_meters_type type, std::string_view module) const {
    ListKeyValue meters;
    forEachMeter(type, module,
        [&](const std::string &key, const sonetrix_value_t &value, const char *) { meters.add(key, value); });
    return meters;
}

ListKeyValue Meters::descriptions(sonetrix_module_meters_type type) const {
    ListKeyValue texts;
    forEachMeter(
        type, "", [&](const std::string &key, const sonetrix_value_t &, const char *text) { texts.add(key, text); });
    return texts;
}

void Meters::setDebugMeter(sonetrix_module_meters_type type, std::string key, const sonetrix_value_t &value) {
    Value copy(value);
    const std::lock_guard lock(mutex_);
    kinds_[type].debugMeters.insert_or_assign(std::move(key), std::move(copy));
}

bool Meters::removeDebugMeter(sonetrix_module_meters_type type, std::string_view key) {
    const std::lock_guard lock(mutex_);
    auto &meters = kinds_[type].debugMeters;
    const auto found = meters.find(key);
    if (found == meters.end())
        return false;
    meters.erase(found);
    return true;
}

} // namespace sonetrix::dev

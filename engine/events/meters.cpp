#include "events/meters.h"

#include "graph/graph.h"

#include <cmath>

namespace sonetrix::dev {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::nanoseconds shortestPeriod = 10ms;
constexpr size_t ringBlocks = 1024;

bool belongsTo(std::string_view key, std::string_view module) noexcept {
    return module.empty() || (key.starts_with(module) && (key.size() == module.size() || key[module.size()] == '.'));
}

} // namespace

Meters::Meters(const Graph &graph, const SystemModule &system, const AudioFormat &format) : graph_(graph) {
    levels_.allocate(ringBlocks);
    kinds_[SONETRIX_METERS_FAST].period = std::max(shortestPeriod, format.blockTime());
    auto key = portKeys_.begin();
    for (const auto *names : {&system.sources(), &system.sinks()})
        for (const std::string &name : *names)
            std::ranges::replace(*key++ = name, ':', '.');
}

void Meters::add(const Levels &levels) noexcept {
    if (levels_.room() == 0)
        dropped_.fetch_add(1, std::memory_order_relaxed);
    else
        levels_.write({&levels, 1});
}

void Meters::round(const std::stop_token &stop) {
    thread_.pause(stop, kinds_[SONETRIX_METERS_FAST].due);
    gather();
    for (const auto type : {SONETRIX_METERS_FAST, SONETRIX_METERS_SLOW}) {
        auto &due = kinds_[type].due;
        const auto now = Thread::Clock::now();
        if (now < due || stop.stop_requested())
            continue;
        due = std::max(due + kinds_[type].period, now); // what was missed is left out
        emit(type);
    }
}

void Meters::gather() {
    const std::lock_guard lock(mutex_);
    for (Levels block; levels_.read({&block, 1}) != 0;) {
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
    std::unique_lock lock(mutex_);
    if (kind.blocks != 0) {
        for (PortLevel &level : kind.gathered) {
            level.meanSquare /= static_cast<float>(kind.blocks);
            if (std::isnan(level.meanSquare))
                level.peak = level.meanSquare;
        }
        kind.emitted = std::exchange(kind.gathered, {});
        kind.blocks = 0;
    }
    lock.unlock();
    if (kind.callbacks.size() == 0)
        return;
    ListKeyValue meters = read(type, "");
    kind.callbacks.callAll(&meters);
}

template <class Shown>
ListKeyValue Meters::collect(sonetrix_module_meters_type type, std::string_view module, Shown shown) const {
    ListKeyValue list;
    const auto add = [&](const std::string &key, const sonetrix_value_t &value, const char *description) {
        list.add(key, shown(value, description));
    };
    std::unique_lock lock(mutex_);
    const Levels levels = kinds_[type].emitted;
    lock.unlock();
    for (size_t port = 0; belongsTo(SystemModule::moduleName, module) && port < levels.size(); ++port) {
        const float mean = std::sqrt(levels[port].meanSquare);
        add(portKeys_[port] + ".peak", valueRecord(levels[port].peak), "highest magnitude; full scale is 1");
        add(portKeys_[port] + ".mean", valueRecord(mean), "root mean square; full scale is 1");
    }
    for (const auto &[one, inputs] : graph_.modules())
        if (belongsTo(one->name(), module))
            for (const auto &[name, value] : one->controlOutputs())
                add(one->name() + '.' + name, valueRecord(value), "control output of the plugin");
    lock.lock();
    for (const auto &[key, value] : kinds_[type].debugMeters)
        if (belongsTo(key, module))
            add(key, value, "debug meter");
    return list;
}

ListKeyValue Meters::read(sonetrix_module_meters_type type, std::string_view module) const {
    return collect(type, module, [](const sonetrix_value_t &value, const char *) { return value; });
}

ListKeyValue Meters::descriptions(sonetrix_module_meters_type type) const {
    return collect(type, "", [](const sonetrix_value_t &, const char *description) { return description; });
}

void Meters::setDebugMeter(sonetrix_module_meters_type type, const char *key, const sonetrix_value_t &value) {
    Value copy(value);
    const std::lock_guard lock(mutex_);
    kinds_[type].debugMeters.insert_or_assign(key, std::move(copy));
}

bool Meters::removeDebugMeter(sonetrix_module_meters_type type, std::string_view key) {
    const std::lock_guard lock(mutex_);
    return std::erase_if(kinds_[type].debugMeters, [key](const auto &meter) { return meter.first == key; }) != 0;
}

} // namespace sonetrix::dev

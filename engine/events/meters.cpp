#include "events/meters.h"

#include "graph/graph.h"

#include <algorithm>
#include <cmath>

namespace sonetrix::dev {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::nanoseconds shortestPeriod = 10ms;
constexpr std::chrono::nanoseconds slowPeriod = 100ms;
constexpr size_t ringBlocks = 1024;

bool belongsTo(std::string_view key, std::string_view module) noexcept {
    return module.empty() || (key.starts_with(module) && (key.size() == module.size() || key[module.size()] == '.'));
}

/// The next due time from now on; those that were missed are left out.
void advance(Thread::Clock::time_point &due, std::chrono::nanoseconds period) {
    due = std::max(due + period, Thread::Clock::now());
}

} // namespace

Meters::Meters(const Graph &graph, const SystemModule &system, const AudioFormat &format)
    : graph_(graph), fastPeriod_(std::max(shortestPeriod, format.blockTime())), levels_(ringBlocks) {
    next_.fill(Thread::Clock::now());
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
    thread_.pause(stop, next_[SONETRIX_METERS_FAST]);
    if (stop.stop_requested())
        return;
    advance(next_[SONETRIX_METERS_FAST], fastPeriod_);
    gather();
    emit(SONETRIX_METERS_FAST);
    if (Thread::Clock::now() >= next_[SONETRIX_METERS_SLOW]) {
        advance(next_[SONETRIX_METERS_SLOW], slowPeriod);
        emit(SONETRIX_METERS_SLOW);
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
    std::unique_lock lock(mutex_);
    const Levels levels = kinds_[type].emitted;
    lock.unlock();
    for (size_t port = 0; belongsTo(SystemModule::moduleName, module) && port < levels.size(); ++port) {
        visit(portKeys_[port] + ".peak", valueRecord(levels[port].peak), "highest magnitude; full scale is 1");
        visit(portKeys_[port] + ".mean", valueRecord(std::sqrt(levels[port].meanSquare)),
            "root mean square; full scale is 1");
    }
    const auto visitModule = [&](const Module &one) {
        const auto &names = one.controlOutputNames();
        for (size_t i = 0; i < names.size(); ++i)
            visit(one.name() + '.' + names[i], valueRecord(one.controlOutput(i)), "control output of the plugin");
    };
    if (module.empty())
        for (const auto &one : graph_.modules())
            visitModule(*one.module);
    else if (const auto one = graph_.module(module))
        visitModule(*one);
    lock.lock();
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

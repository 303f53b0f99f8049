#include "graph/graph.h"

#include "api/status.h"
#include "graph/refusal.h"
#include "ladspa/ladspa_module.h"
#include "ladspa/port_names.h"
#include "thread.h"

#include <algorithm>
#include <chrono>
#include <fmt/format.h>
#include <stdexcept>
#include <utility>

namespace sonetrix::dev {

namespace {

constexpr std::chrono::milliseconds gathering{1};   // edits within this time share a plan
constexpr std::chrono::milliseconds collecting{10}; // until the audio thread is expected to have left a plan

/// Refuses what cannot be a module's name; "engine" and "plugins" stand before parameters of other kinds.
void checkModuleName(std::string_view name) {
    if (!isModuleName(name))
        throw Refusal(statusInvalid,
            fmt::format("a module's name has 1 to {} letters, digits, \"_\" and \"-\"", Module::nameMaximum));
    if (name == "engine" || name == "plugins")
        throw Refusal(statusInvalid, "that name is taken by the engine's own parameters");
}

template <class Names> std::string suggestion(std::string_view given, const Names &names) {
    Suggestion suggestion(given);
    for (const auto &[name, what] : names)
        suggestion.consider(name);
    return suggestion.text();
}

} // namespace

Graph::Graph(std::shared_ptr<SystemModule> system,
    uint32_t rate,
    uint32_t block,
    LadspaCatalogue &catalogue,
    Parameters &parameters,
    PlanExchange &plans)
    : rate_(rate), block_(block), catalogue_(catalogue), parameters_(parameters), plans_(plans) {
    insert(std::move(system), std::nullopt);
    plans_.publish(std::make_unique<Plan>(wiring(), rate_, block_));
    planThread_ = engineThread("sonetrix-graph", [this](const std::stop_token &) { planThreadMain(); });
}

Graph::~Graph() { join(); }

void Graph::join() {
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    changed_.notify_all();
    if (planThread_.joinable())
        planThread_.join();
}

int32_t Graph::createModule(const char *name, const char *identifier, const ListKeyValue *configuration) {
    const auto what = [&] { return "cannot create module " + inQuotes(name) + " from " + inQuotes(identifier); };
    return attempt(what, [&] {
        checkModuleName(name);
        const LadspaPlugin &plugin = catalogue_.plugin(identifier);
        if (module(name))
            throw Refusal(statusExists, "there is a module of that name");
        const auto created = std::make_shared<LadspaModule>(name, plugin, rate_, block_, smoothing_, configuration);
        Origin origin{plugin.library, configuration != nullptr ? *configuration : ListKeyValue()};

        const std::lock_guard lock(mutex_);
        if (modules_.contains(created->name()))
            throw Refusal(statusExists, "there is a module of that name");
        try {
            insert(created, std::move(origin));
            parameters_.add(created->name(), LadspaModule::parameters(created));
        } catch (...) {
            remove(*created);
            throw;
        }
    });
}

int32_t Graph::deleteModule(std::string_view name) {
    return attempt([&] { return "cannot delete module " + inQuotes(name); },
        [&] {
            std::shared_ptr<Module> deleted; // ends after the lock
            const std::lock_guard lock(mutex_);
            const auto found = modules_.find(name);
            if (found == modules_.end())
                throw Refusal(statusNotFound, "there is no such module" + suggestion(name, modules_));
            deleted = found->second->module;
            if (deleted->type() == Module::Type::driver)
                throw Refusal(statusInvalid, "it belongs to the driver");
            remove(*deleted);
        });
}

int32_t Graph::link(std::string_view sourceName, std::string_view sinkName) {
    const auto what = [&] { return "cannot link " + inQuotes(sourceName) + " to " + inQuotes(sinkName); };
    return attempt(what, [&] {
        const std::lock_guard lock(mutex_);
        Port &source = port(sourceName);
        Port &sink = port(sinkName);
        if (!source.isSource || sink.isSource)
            throw Refusal(statusInvalid, "a link goes from a source to a sink");
        if (sink.source == &source)
            return;
        if (sink.source != nullptr)
            throw Refusal(statusBusy, "the sink is linked already, to " + inQuotes(sink.source->name()));
        source.sinks.push_back(&sink);
        sink.source = &source;
        sink.owner->record.reset();
        edited();
    });
}

int32_t Graph::unlink(std::string_view name) {
    return attempt([&] { return "cannot unlink " + inQuotes(name); },
        [&] {
            const std::lock_guard lock(mutex_);
            unlink(port(name));
            edited();
        });
}

std::vector<std::string> Graph::portNames() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    names.reserve(ports_.size());
    for (const Entry &entry : entries_) {
        names.insert(names.end(), entry.module->sources().begin(), entry.module->sources().end());
        names.insert(names.end(), entry.module->sinks().begin(), entry.module->sinks().end());
    }
    return names;
}

std::vector<std::string> Graph::links(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    std::vector<std::string> names;
    const auto found = ports_.find(name);
    if (found == ports_.end())
        return names;
    const Port &port = found->second;
    if (port.source != nullptr)
        names.push_back(port.source->name());
    for (const Port *sink : port.sinks)
        names.push_back(sink->name());
    return names;
}

std::shared_ptr<const Graph::Records> Graph::records() const {
    const std::lock_guard lock(mutex_);
    if (records_)
        return records_;
    Records records;
    records.reserve(entries_.size());
    for (const Entry &entry : entries_) {
        if (!entry.record) {
            std::vector<std::string> links(entry.sinks.size());
            for (size_t i = 0; i < links.size(); ++i)
                if (const Port *source = entry.sinks[i]->source)
                    links[i] = source->name();
            entry.record = std::make_shared<const ModuleRecord>(*entry.module, std::move(links));
        }
        records.push_back(entry.record);
    }
    records_ = std::make_shared<const Records>(std::move(records));
    return records_;
}

std::vector<std::shared_ptr<const Module>> Graph::modules() const {
    const std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<const Module>> modules;
    modules.reserve(entries_.size());
    for (const Entry &entry : entries_)
        modules.push_back(entry.module);
    return modules;
}

std::shared_ptr<const Module> Graph::module(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    const auto found = modules_.find(name);
    return found == modules_.end() ? nullptr : found->second->module;
}

std::optional<Graph::Origin> Graph::origin(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    const auto found = modules_.find(name);
    return found == modules_.end() ? std::nullopt : found->second->origin;
}

void Graph::insert(std::shared_ptr<Module> module, std::optional<Origin> origin) {
    auto &position = modules_.emplace(module->name(), entries_.end()).first->second;
    const auto entry = entries_.insert(entries_.end(), Entry{std::move(module), std::move(origin), {}, {}, {}});
    position = entry;
    const auto addPorts = [&](const std::vector<std::string> &names, bool areSources, std::vector<Port *> &ports) {
        for (size_t i = 0; i < names.size(); ++i)
            ports.push_back(&ports_.emplace(names[i], Port{&*entry, i, areSources, nullptr, {}}).first->second);
    };
    addPorts(entry->module->sources(), true, entry->sources);
    addPorts(entry->module->sinks(), false, entry->sinks);
    edited();
}

void Graph::remove(const Module &module) {
    const auto found = modules_.find(module.name());
    if (found == modules_.end())
        return;
    if (const auto entry = found->second; entry != entries_.end()) {
        for (const auto *ports : {&entry->sources, &entry->sinks})
            for (Port *port : *ports)
                unlink(*port);
        for (const auto *names : {&module.sources(), &module.sinks()})
            for (const std::string &port : *names)
                ports_.erase(port);
        entries_.erase(entry);
    }
    modules_.erase(found);
    parameters_.removeModule(module.name());
    edited();
}

void Graph::unlink(Port &port) {
    if (port.source != nullptr)
        unlinkSink(port);
    while (!port.sinks.empty())
        unlinkSink(*port.sinks.back());
}

void Graph::unlinkSink(Port &sink) {
    auto &siblings = sink.source->sinks;
    siblings.erase(std::ranges::find(siblings.rbegin(), siblings.rend(), &sink).base() - 1);
    sink.source = nullptr;
    sink.owner->record.reset();
}

const std::string &Graph::Port::name() const {
    return (isSource ? owner->module->sources() : owner->module->sinks())[index];
}

Graph::Port &Graph::port(std::string_view name) {
    const auto found = ports_.find(name);
    if (found == ports_.end())
        throw Refusal(statusNotFound, "there is no port " + inQuotes(name) + suggestion(name, ports_));
    return found->second;
}

std::vector<WiredModule> Graph::wiring() const {
    std::vector<WiredModule> modules;
    modules.reserve(entries_.size());
    for (const Entry &entry : entries_) {
        auto &wired = modules.emplace_back(WiredModule{entry.module, {}});
        wired.inputs.resize(entry.sinks.size());
        for (size_t i = 0; i < entry.sinks.size(); ++i)
            if (const Port *source = entry.sinks[i]->source)
                wired.inputs[i] = Source{source->owner->module.get(), source->index};
    }
    return modules;
}

void Graph::edited() {
    ++edits_;
    records_.reset();
    changed_.notify_all();
}

void Graph::flush() {
    std::unique_lock lock(mutex_);
    const uint64_t edits = edits_;
    ++flushing_;
    changed_.notify_all();
    changed_.wait(lock, [&] { return ending_ || planned_ >= edits; });
    --flushing_;
}

void Graph::planThreadMain() {
    const auto hasWork = [this] { return ending_ || planned_ != edits_; };
    bool taken = true;
    bool settled = true; // nothing comes back from the audio thread any more
    std::unique_lock lock(mutex_);
    while (!ending_) {
        if (settled)
            changed_.wait(lock, hasWork);
        else
            changed_.wait_for(lock, collecting, hasWork);
        changed_.wait_for(lock, gathering, [this] { return ending_ || flushing_ > 0 || planned_ == edits_; });
        const uint64_t edits = edits_;
        const bool stale = planned_ != edits;
        const auto modules = stale ? wiring() : std::vector<WiredModule>();
        lock.unlock();
        if (stale)
            publishPlan(modules);
        // The audio thread gives the old plan back just after it has taken the new one: look once more then.
        settled = taken && !stale;
        taken = plans_.isTaken();
        settled = settled && taken;
        plans_.collect();
        lock.lock();
        planned_ = edits;
        changed_.notify_all();
    }
}

void Graph::publishPlan(std::span<const WiredModule> modules) noexcept {
    try {
        plans_.publish(std::make_unique<Plan>(modules, rate_, block_));
    } catch (const std::bad_alloc &) {
        sonetrix_log(SONETRIX_LOG_ERROR, __FILE__, __LINE__, 1, "no memory for the edited graph; the old one plays on");
    }
}

} // namespace sonetrix::dev

#include "graph/graph.h"

#include "api/status.h"
#include "graph/refusal.h"
#include "ladspa/ladspa_module.h"
#include "ladspa/port_names.h"

#include <algorithm>
#include <chrono>
#include <deque>
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

/// A module's record for the C interface, with all that it points to. The record's reference is null for every module,
/// the driver's as well, so that the ports of all are looked at.
class ModuleRecord {
public:
    /// `links`: for every sink the name of its source, empty for none.
    ModuleRecord(const Module &module, std::vector<std::string> links) : links_(std::move(links)) {
        const size_t sources = module.sources().size();
        const size_t sinks = module.sinks().size();
        ports_.resize(sources + sinks);
        for (size_t i = 0; i < ports_.size(); ++i) {
            copyName(ports_[i].name, i < sources ? module.sources()[i] : module.sinks()[i - sources]);
            if (i >= sources && !links_[i - sources].empty())
                ports_[i].link = links_[i - sources].c_str();
            pointers_.push_back(&ports_[i]);
        }
        copyName(record_.name, module.name());
        record_.type = static_cast<uint32_t>(module.type());
        record_.sources = pointers_.data();
        record_.sourceCount = static_cast<uint32_t>(sources);
        record_.sinks = pointers_.data() + sources;
        record_.sinkCount = static_cast<uint32_t>(sinks);
    }
    ModuleRecord(const ModuleRecord &) = delete;
    ModuleRecord &operator=(const ModuleRecord &) = delete;

    [[nodiscard]] const sonetrix_module_t &get() const noexcept { return record_; }

private:
    /// The names are checked where modules are made; the record is all zero before.
    template <size_t size> static void copyName(char (&field)[size], const std::string &name) {
        name.copy(field, size - 1);
    }

    const std::vector<std::string> links_;
    std::vector<sonetrix_port_t> ports_; // sources, then sinks
    std::vector<sonetrix_port_t *> pointers_;
    sonetrix_module_t record_{};
};

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
    planThread_.start("sonetrix-graph", [this](const std::stop_token &stop) { planRound(stop); });
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

void Graph::forEachRecord(const std::function<void(const sonetrix_module_t &)> &visit) const {
    std::deque<ModuleRecord> records; // visited without the lock: a visit may edit the graph
    {
        const std::lock_guard lock(mutex_);
        for (const Entry &entry : entries_) {
            std::vector<std::string> links(entry.sinks.size());
            for (size_t i = 0; i < links.size(); ++i)
                if (const Port *source = entry.sinks[i]->source)
                    links[i] = source->name();
            records.emplace_back(*entry.module, std::move(links));
        }
    }
    for (const ModuleRecord &record : records)
        visit(record.get());
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
    const auto entry = entries_.insert(entries_.end(), Entry{std::move(module), std::move(origin), {}, {}});
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

void Graph::edited() noexcept {
    ++edits_;
    changed_.notify_all();
}

void Graph::flush() {
    std::unique_lock lock(mutex_);
    const uint64_t edits = edits_;
    ++flushing_;
    changed_.notify_all();
    changed_.wait(lock, planThread_.stopToken(), [&] { return planned_ >= edits; });
    --flushing_;
}

void Graph::planRound(const std::stop_token &stop) {
    const auto hasWork = [this] { return planned_ != edits_; };
    std::unique_lock lock(mutex_);
    if (isSettled_)
        changed_.wait(lock, stop, hasWork);
    else
        changed_.wait_for(lock, stop, collecting, hasWork);
    changed_.wait_for(lock, stop, gathering, [this] { return flushing_ > 0 || planned_ == edits_; });
    const uint64_t edits = edits_;
    const bool isStale = planned_ != edits;
    auto modules = isStale ? wiring() : std::vector<WiredModule>();
    lock.unlock();
    if (isStale)
        plans_.publish(std::make_unique<Plan>(modules, rate_, block_));
    // The audio thread gives the old plan back just after it has taken the new one: look once more then.
    const bool wasTaken = std::exchange(isTaken_, plans_.isTaken());
    isSettled_ = wasTaken && isTaken_ && !isStale;
    plans_.collect();
    modules.clear();
    lock.lock();
    planned_ = edits;
    changed_.notify_all();
}

} // namespace sonetrix::dev

#include "graph/graph.h"

#include "ladspa/ladspa_module.h"
#include "refusal.h"

#include <fmt/format.h>

namespace sonetrix::dev {

namespace {

constexpr std::chrono::milliseconds gathering{1};   // edits within this time share a plan
constexpr std::chrono::milliseconds collecting{10}; // until the audio thread is expected to have left a plan

/// Refuses what cannot be a module's name; "engine" and "plugins" stand before parameters of other kinds.
void checkModuleName(std::string_view name) {
    constexpr auto permitted = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-";
    if (name.empty() || name.size() > Module::nameMaximum || name.find_first_not_of(permitted) != std::string::npos)
        throw Refusal(statusInvalid,
            fmt::format("a module's name has 1 to {} letters, digits, \"_\" and \"-\"", Module::nameMaximum));
    if (name == "engine" || name == "plugins")
        throw Refusal(statusInvalid, "that name is taken by the engine's own parameters");
}

const std::string &nameOfModule(const WiredModule &wired) noexcept { return wired.module->name(); }

const std::string &nameOf(const Source &source) noexcept { return source.module->sources()[source.index]; }

template <class Modules> auto find(Modules &modules, std::string_view name) {
    return std::ranges::find_if(modules, [name](const WiredModule &one) { return nameOfModule(one) == name; });
}

std::vector<std::string> portNamesOf(const std::vector<WiredModule> &modules) {
    std::vector<std::string> names;
    for (const auto &[module, inputs] : modules)
        for (const auto *ports : {&module->sources(), &module->sinks()})
            names.insert(names.end(), ports->begin(), ports->end());
    return names;
}

/// The names are checked where modules are made; the field is all zero before.
template <size_t size> void copyName(char (&field)[size], const std::string &name) { name.copy(field, size - 1); }

/// Hands over the module's record for the C interface. The record's reference is null for every module, the driver's
/// as well, so that the ports of all are looked at.
void visitRecord(const WiredModule &wired, const std::function<void(const sonetrix_module_t &)> &visit) {
    const auto &sources = wired.module->sources();
    const auto &sinks = wired.module->sinks();
    std::vector<sonetrix_port_t> ports(sources.size() + sinks.size());
    std::vector<sonetrix_port_t *> pointers(ports.size());
    for (size_t i = 0; i < ports.size(); ++i) {
        const bool isSource = i < sources.size();
        const size_t index = isSource ? i : i - sources.size();
        copyName(ports[i].name, isSource ? sources[index] : sinks[index]);
        if (!isSource && wired.inputs[index])
            ports[i].link = nameOf(*wired.inputs[index]).c_str();
        pointers[i] = &ports[i];
    }
    sonetrix_module_t record{};
    copyName(record.name, nameOfModule(wired));
    record.type = wired.module->origin() == nullptr ? 0 : 1;
    record.sources = pointers.data();
    record.sourceCount = static_cast<uint32_t>(sources.size());
    record.sinks = pointers.data() + sources.size();
    record.sinkCount = static_cast<uint32_t>(sinks.size());
    visit(record);
}

} // namespace

Graph::Graph(
    std::shared_ptr<SystemModule> system, const AudioFormat &format, LadspaCatalogue &catalogue, Parameters &parameters)
    : format_(format), catalogue_(catalogue), parameters_(parameters) {
    modules_.emplace_back(std::move(system));
    plans_.publish(std::make_unique<Plan>(modules_, format_));
    planThread_.start();
}

void Graph::createModule(const char *name, const char *identifier, const ListKeyValue *configuration) {
    checkModuleName(name);
    const LadspaPlugin &plugin = catalogue_.plugin(identifier);
    const auto created = std::make_shared<LadspaModule>(name, plugin, format_, smoothing_, configuration);
    auto parameters = created->parameters();

    const std::lock_guard lock(mutex_);
    if (find(modules_, name) != modules_.end())
        throw Refusal(statusExists, "there is a module of that name");
    modules_.emplace_back(created);
    try {
        parameters_.add(name, std::move(parameters));
    } catch (...) {
        modules_.pop_back();
        throw;
    }
    edited();
}

void Graph::deleteModule(std::string_view name) {
    std::shared_ptr<Module> deleted; // ends after the lock
    const std::lock_guard lock(mutex_);
    const auto found = find(modules_, name);
    if (found == modules_.end()) {
        std::vector<std::string> names;
        std::ranges::transform(modules_, std::back_inserter(names), nameOfModule);
        throw Refusal(statusNotFound, "there is no such module" + suggestion(name, names));
    }
    if (found->module->origin() == nullptr)
        throw Refusal(statusInvalid, "it belongs to the driver");
    deleted = std::move(found->module);
    modules_.erase(found);
    for (WiredModule &other : modules_)
        for (auto &input : other.inputs)
            if (input && input->module == deleted.get())
                input.reset();
    parameters_.removeModule(deleted->name());
    edited();
}

void Graph::link(std::string_view sourceName, std::string_view sinkName) {
    const std::lock_guard lock(mutex_);
    const Port source = port(sourceName);
    const Port sink = port(sinkName);
    if (source.input != nullptr || sink.input == nullptr)
        throw Refusal(statusInvalid, "a link goes from a source to a sink");
    if (*sink.input == source.place)
        return;
    if (*sink.input)
        throw Refusal(statusBusy, "the sink is linked already, to " + inQuotes(nameOf(**sink.input)));
    *sink.input = source.place;
    edited();
}

void Graph::unlink(std::string_view name) {
    const std::lock_guard lock(mutex_);
    const Port unlinked = port(name);
    for (WiredModule &one : modules_)
        for (auto &input : one.inputs)
            if (&input == unlinked.input || (unlinked.input == nullptr && input == unlinked.place))
                input.reset();
    edited();
}

std::vector<std::string> Graph::portNames() const { return portNamesOf(modules()); }

std::vector<std::string> Graph::links(std::string_view port) const {
    std::vector<std::string> names;
    for (const auto &[module, inputs] : modules()) {
        for (size_t i = 0; i < inputs.size(); ++i) {
            if (inputs[i] && nameOf(*inputs[i]) == port)
                names.push_back(module->sinks()[i]);
            if (inputs[i] && module->sinks()[i] == port)
                names.push_back(nameOf(*inputs[i]));
        }
    }
    return names;
}

void Graph::forEachRecord(const std::function<void(const sonetrix_module_t &)> &visit) const {
    for (const auto all = modules(); const WiredModule &wired : all) // without the lock: a visit may edit the graph
        visitRecord(wired, visit);
}

std::vector<WiredModule> Graph::modules() const {
    const std::lock_guard lock(mutex_);
    return modules_;
}

std::shared_ptr<const Module> Graph::module(std::string_view name) const {
    const std::lock_guard lock(mutex_);
    const auto found = find(modules_, name);
    return found == modules_.end() ? nullptr : found->module;
}

Graph::Port Graph::port(std::string_view name) {
    if (const auto owner = find(modules_, name.substr(0, name.find(':'))); owner != modules_.end()) {
        const Module &module = *owner->module;
        const auto indexIn = [name](const auto &ports) {
            return static_cast<size_t>(std::ranges::find(ports, name) - ports.begin());
        };
        if (const size_t source = indexIn(module.sources()); source < module.sources().size())
            return {{&module, source}};
        if (const size_t sink = indexIn(module.sinks()); sink < module.sinks().size())
            return {{&module, sink}, &owner->inputs[sink]};
    }
    throw Refusal(statusNotFound, "there is no port " + inQuotes(name) + suggestion(name, portNamesOf(modules_)));
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
    std::vector<WiredModule> modules;
    if (hasWork())
        modules = modules_;
    lock.unlock();
    if (!modules.empty())
        plans_.publish(std::make_unique<Plan>(modules, format_));
    isSettled_ = plans_.collect();
    modules.clear();
    lock.lock();
    planned_ = edits;
    changed_.notify_all();
}

} // namespace sonetrix::dev

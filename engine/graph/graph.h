#pragma once

#include "graph/plan.h"
#include "graph/system_module.h"
#include "ladspa/ladspa_catalogue.h"
#include "lists/lists.h"
#include "thread.h"

namespace sonetrix::dev {

/// The modules and their links. Safe for concurrent use; none of its functions makes the audio thread wait.
///
/// A source may feed many sinks, a sink has one source at most. Edits take effect in the books at once; a thread of the
/// graph's own then turns the books into a plan for the audio thread, one plan for edits that come in quick succession,
/// and frees what is no longer in use.
class Graph {
public:
    Graph(std::shared_ptr<SystemModule> system,
        const AudioFormat &format,
        LadspaCatalogue &catalogue,
        Parameters &parameters);

    // These throw Refusal.
    void createModule(const char *name, const char *identifier, const ListKeyValue *configuration);
    void deleteModule(std::string_view name);
    /// A sink that is linked to another source has to be unlinked first.
    void link(std::string_view source, std::string_view sink);
    /// Removes every link of a source or a sink.
    void unlink(std::string_view port);

    [[nodiscard]] std::vector<std::string> portNames() const;
    /// The sinks that a source feeds, in the order of their modules, or the source that feeds a sink.
    [[nodiscard]] std::vector<std::string> links(std::string_view port) const;
    /// Calls back for the modules as they are now, in creation order, the system module first.
    void forEachRecord(const std::function<void(const sonetrix_module_t &)> &visit) const;
    /// The same modules themselves, with what feeds them.
    [[nodiscard]] std::vector<WiredModule> modules() const;
    /// Null when there is no such module.
    [[nodiscard]] std::shared_ptr<const Module> module(std::string_view name) const;

    /// How long plugins' controls take to a new value, in seconds; 0: none at all.
    [[nodiscard]] std::atomic<float> &smoothing() noexcept { return smoothing_; }

    /// Audio thread, at the beginning of a block: the newest plan.
    [[nodiscard]] Plan &plan() noexcept { return *plans_.acquire(); }
    /// Returns when all edits made before are ready for the audio thread's next block.
    void flush();
    /// Ends the thread that destroys modules: it must not meet the exit handlers of their plugins' libraries. Edits do
    /// not reach the audio thread any more.
    void join() { planThread_.join(); }

private:
    /// Where a port is; of a sink also what feeds it.
    struct Port {
        Source place;
        std::optional<Source> *input = nullptr;
    };

    // The functions below are called with the mutex held.
    /// Throws Refusal when there is none.
    [[nodiscard]] Port port(std::string_view name);
    void edited() noexcept;

    void planRound(const std::stop_token &stop);

    const AudioFormat format_;
    LadspaCatalogue &catalogue_;
    Parameters &parameters_;
    std::atomic<float> smoothing_{0};
    PlanExchange plans_;

    mutable std::mutex mutex_;
    std::vector<WiredModule> modules_; // in creation order
    uint64_t edits_ = 0;
    uint64_t planned_ = 0; // of the edits
    uint32_t flushing_ = 0;
    bool isSettled_ = true; // nothing comes back from the audio thread any more
    std::condition_variable_any changed_;
    Thread planThread_{"sonetrix-graph", [this](const std::stop_token &stop) { planRound(stop); }};
};

} // namespace sonetrix::dev

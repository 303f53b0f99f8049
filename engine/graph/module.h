#pragma once

#include "graph/parameters.h"

#include <atomic>
#include <new>

namespace sonetrix::dev {

/// Samples in the engine's accounted memory, silent at first. Keeps its address for life.
class AudioBuffer {
public:
    explicit AudioBuffer(size_t frames)
        : data_(static_cast<float *>(sonetrix_malloc(frames * sizeof(float))), sonetrix_free) {
        if (!data_)
            throw std::bad_alloc();
        std::fill_n(data_.get(), frames, 0.0F);
    }

    [[nodiscard]] float *data() const noexcept { return data_.get(); }

private:
    std::unique_ptr<float[], void (*)(void *)> data_;
};

/// A module as the graph and the audio thread see it. What it consists of is fixed at its creation; an audio source is
/// a port that the module fills, a sink one that it reads.
class Module {
public:
    using Names = std::vector<std::string>;

    /// Longest names, without the terminating NUL.
    static constexpr size_t nameMaximum = sizeof(sonetrix_module_t::name) - 1;
    static constexpr size_t portNameMaximum = sizeof(sonetrix_port_t::name) - 1;

    /// Port names are without the module's; `block` is the block's length in frames.
    Module(std::string name, Names sources, Names sinks, uint32_t block)
        : name_(std::move(name)), sources_(engineWide(std::move(sources))), sinks_(engineWide(std::move(sinks))) {
        for (size_t i = 0; i < sources_.size(); ++i)
            outputs_.emplace_back(block);
    }
    virtual ~Module() = default;

    [[nodiscard]] const std::string &name() const noexcept { return name_; }
    /// Engine-wide names, `module:port`.
    [[nodiscard]] const Names &sources() const noexcept { return sources_; }
    [[nodiscard]] const Names &sinks() const noexcept { return sinks_; }
    /// Where the module leaves what a source carries; one block.
    [[nodiscard]] float *output(size_t source) const noexcept { return outputs_[source].data(); }

    /// Audio thread: one block, with one input per sink.
    virtual void process(const float *const *inputs, uint32_t frames) noexcept = 0;

    /// What scripts can read and write of it: these keep the module alive.
    [[nodiscard]] virtual std::vector<Parameter> parameters() { return {}; }

    /// What a plugin was made from; null for the driver's module.
    struct Origin {
        std::string library;
        ListKeyValue configuration;
    };
    [[nodiscard]] virtual const Origin *origin() const noexcept { return nullptr; }

    /// What a plugin tells besides audio: names without the module's, and values after the last block.
    [[nodiscard]] virtual std::vector<std::pair<std::string, float>> controlOutputs() const { return {}; }

    /// Audio thread: enters the time that a block took into the running mean, and returns the mean.
    double addTime(double seconds, double weight) noexcept {
        meanTime_ += weight * (seconds - meanTime_);
        publishedTime_.store(static_cast<float>(meanTime_), std::memory_order_relaxed);
        return meanTime_;
    }
    /// Mean processing time per block over about the last second, in seconds.
    [[nodiscard]] float meanTime() const noexcept { return publishedTime_.load(std::memory_order_relaxed); }

private:
    [[nodiscard]] Names engineWide(Names ports) const {
        for (std::string &port : ports)
            port.insert(0, name_ + ':');
        return ports;
    }

    const std::string name_;
    const Names sources_;
    const Names sinks_;
    std::vector<AudioBuffer> outputs_;
    double meanTime_ = 0;
    std::atomic<float> publishedTime_{0};
};

} // namespace sonetrix::dev

#pragma once

#include "lists/lists.h"

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace sonetrix::dev {

/// One parameter of a module. Both functions may be called from any thread, several at a time, and read a parameter
/// that is as old as its module: what they refer to must live as long as they do.
struct Parameter {
    std::string name;
    /// The current value: a record of a scalar or of a string that is never freed.
    std::function<sonetrix_value_t()> read;
    /// Whether the value was of the right type and in range, and written. Null: the parameter cannot be written.
    std::function<bool(const sonetrix_value_t &)> write;
};

/// Learns of every parameter written, on the writing thread, which holds no lock of the engine. Must be quick.
class ParameterListener {
public:
    virtual ~ParameterListener() = default;
    virtual void parameterWritten(std::string_view key) noexcept = 0;
};

/// All parameters of the process, by keys `module.name`; a module's name has no dot, a parameter's may have some.
/// Safe for concurrent use. A module's parameters come and go together.
class Parameters {
public:
    /// Adds parameters to those the module has.
    void add(const std::string &module, std::vector<Parameter> parameters);
    void removeModule(const std::string &module);

    /// The parameters that the string values of `keys` name, in that order; a key "module." means all of that module.
    /// What is not there is left out.
    [[nodiscard]] ListKeyValue read(const ListValue &keys) const;
    /// Writes what can be written and adds that to `written`. True when it was everything.
    bool write(const ListKeyValue &parameters, ListKeyValue &written);

    /// Null: nobody listens. The listener must outlive the last write.
    void setListener(ParameterListener *listener) noexcept { listener_ = listener; }

private:
    using Module = std::vector<Parameter>;

    [[nodiscard]] std::shared_ptr<const Module> find(std::string_view module) const;

    mutable std::mutex mutex_; // guards the table only: nobody reads, writes or calls out with it held
    std::unordered_map<std::string, std::shared_ptr<const Module>> modules_;
    std::atomic<ParameterListener *> listener_{nullptr};
};

} // namespace sonetrix::dev

#pragma once

#include "lists/lists.h"

#include <functional>
#include <limits>
#include <mutex>
#include <optional>
#include <unordered_map>

namespace sonetrix::dev {

/// What a parameter takes when it is written: an int32 or a float in a range, or a string.
struct Domain {
    sonetrix_value_type_t type = SONETRIX_VALUE_FLOAT;
    double minimum = -std::numeric_limits<double>::infinity();
    double maximum = std::numeric_limits<double>::infinity();
    std::string unit{};

    /// The value as one of the type. Numbers are converted where they fit: integers to any number, a double to a float.
    [[nodiscard]] std::optional<sonetrix_value_t> converted(const sonetrix_value_t &value) const noexcept;
    /// "a float from 0 to 24000 Hz"
    [[nodiscard]] std::string text() const;
};

/// "220 (int32)"
std::string valueText(const sonetrix_value_t &value);

/// One parameter of a module. Both functions may be called from any thread, several at a time, and read a parameter
/// that is as old as its module: what they refer to must live as long as they do.
struct Parameter {
    std::string name;
    std::function<Value()> read;
    Domain domain{};
    /// Gets a value of the domain; may throw Refusal. Null: the parameter cannot be written.
    std::function<void(const sonetrix_value_t &)> write{};
};

/// A function that reads a parameter, of one that gives a number or a string.
template <class Read> std::function<Value()> reader(Read read) {
    return [read = std::move(read)] { return Value(valueRecord(read())); };
}

/// All parameters of the process, by keys `module.name`; a module's name has no dot, a parameter's may have some.
/// Safe for concurrent use. A module's parameters come and go together.
class Parameters {
public:
    /// Adds what the key's part behind the module's name asks for.
    using Reader = std::function<void(std::string_view name, ListKeyValue &result)>;

    /// A module that is there gets these in place of its own.
    /// What it has besides is read by that function and cannot be written.
    void add(const std::string &module, std::vector<Parameter> parameters, Reader reader = {});
    void removeModule(const std::string &module);

    /// The parameters that the string values of `keys` name, in that order; a key "module." means all of that module.
    /// What is not there is left out.
    [[nodiscard]] ListKeyValue read(const ListValue &keys) const;
    /// Writes what can be written and adds that to `written`, as it now is. The log says why the others are refused.
    /// True when it was everything.
    bool write(const ListKeyValue &parameters, ListKeyValue &written);

    /// Called with the key of every parameter written, on the writing thread, which holds no lock of the engine. Must
    /// be quick; set before the first write.
    void setListener(std::function<void(const char *key)> listener) { listener_ = std::move(listener); }

private:
    struct Module {
        std::vector<Parameter> parameters;
        Reader reader;
    };
    /// What a key names: in no module, nothing; without a parameter, the whole module or what only its reader knows.
    struct Place {
        std::shared_ptr<const Module> module;
        std::string_view name; // behind the module's
        const Parameter *parameter = nullptr;
    };

    [[nodiscard]] Place find(std::string_view key) const;
    [[nodiscard]] std::vector<std::string> keys() const;
    void writeOne(const sonetrix_keyValue_t &entry, ListKeyValue &written);

    mutable std::mutex mutex_; // guards the table only: nobody reads, writes or calls out with it held
    std::unordered_map<std::string, std::shared_ptr<const Module>> modules_;
    std::function<void(const char *)> listener_;
};

} // namespace sonetrix::dev

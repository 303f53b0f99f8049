// Functions and methods that Python calls, each one line in a table: name, signature, docstring, C++ body.
//
// The signature is Python's own notation, "(p1: str | bytes, p2: str | bytes | None = None) -> int". It is read at
// compile time for what the call needs (names, what is required) and at import for the docstring, where the interpreter
// and inspect.signature() read it; so what they show is what the call does. In Python they are the interpreter's own
// builtin functions and method descriptors: only for these exact types does it specialise calls. They have no place for
// annotations; a line that asks for them gets a Python function around its own.
#pragma once

#include "errors.h"
#include "gil.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace sonetrix {

struct Parameter {
    std::string_view name;
    std::string_view fallback; // its default as text; empty where it is required
};

class Signature {
public:
    static constexpr std::size_t maximumParameters = 4;

    consteval Signature(const char *text) : text_(text) { // NOLINT(google-explicit-constructor): tables give plain text
        const std::string_view all = text;
        std::string_view rest = all.substr(1, all.rfind(')') - 1);
        while (!rest.empty()) {
            if (size_ == maximumParameters) {
                throw "too many parameters";
            }
            const std::size_t end = endOfFirst(rest);
            parameters_[size_] = parse(rest.substr(0, end));
            required_ += parameters_[size_].fallback.empty() ? 1 : 0;
            ++size_;
            rest.remove_prefix(std::min(end + std::string_view(", ").size(), rest.size()));
        }
    }

    constexpr const char *text() const noexcept { return text_; }
    constexpr std::size_t size() const noexcept { return size_; }
    constexpr std::size_t required() const noexcept { return required_; }
    constexpr std::span<const Parameter> parameters() const noexcept { return std::span(parameters_).first(size_); }

private:
    static constexpr std::size_t endOfFirst(std::string_view list) {
        int depth = 0;
        std::size_t end = 0;
        while (end < list.size() && (depth > 0 || list[end] != ',')) {
            depth += (list[end] == '[') - (list[end] == ']');
            ++end;
        }
        return end;
    }
    // "name: type = default", type and default where there are any
    static constexpr Parameter parse(std::string_view text) {
        const std::size_t equals = text.find('=');
        const std::string_view fallback = equals == std::string_view::npos ? "" : text.substr(equals + 1);
        return {text.substr(0, text.find_first_of(":=")), fallback.substr(fallback.starts_with(' ') ? 1 : 0)};
    }

    const char *text_;
    std::array<Parameter, maximumParameters> parameters_{};
    std::size_t size_ = 0;
    std::size_t required_ = 0;
};

// The arguments of one call, by parameter; null where an optional one was left out.
class Arguments {
public:
    // The values from `count` on were left out.
    Arguments(PyObject *const *values, std::size_t count) noexcept : values_(values), count_(count) {}
    PyObject *operator[](std::size_t index) const noexcept { return get(index, nullptr); }
    // The argument, or `fallback` where it was left out.
    PyObject *get(std::size_t index, PyObject *fallback) const noexcept {
        return index < count_ && values_[index] != nullptr ? values_[index] : fallback;
    }

private:
    PyObject *const *values_;
    std::size_t count_;
};

struct FunctionRecord;

// What the interpreter calls, and where that finds its record.
struct Entry {
    PyObject *(*call)(PyObject *self, PyObject *const *values, Py_ssize_t count, PyObject *keywordNames) noexcept;
    const FunctionRecord **record;
};

enum class Annotations { no, yes };

// One line of a table.
struct Method {
    const char *name;
    Signature signature;
    const char *doc;
    Entry entry; // function<body> or method<Class, body>
    Annotations annotations = Annotations::no;
};

// What a function keeps for as long as the process lives.
struct FunctionRecord {
    const Method *method;
    std::string qualifiedName; // "sonetrix.engine.link", as it stands in tracebacks
    std::string doc;           // with the signature in front, as the interpreter wants it
    PyMethodDef definition;
};

// "link(p1, p2=None)\n--\n\n", the interpreter's own form of a signature at the head of a docstring.
std::string signatureLine(const Method &method, bool isMethod);

// A function for the dictionary of `owner`, the module or a class. In a class it is static: a builtin function binds to
// nothing.
Ref newFunction(const Method &method, PyObject *owner);
// Adds the table's methods to the class.
void addMethods(PyTypeObject *type, std::span<const Method> methods);

// Matches a call's arguments to the parameters; `slots` has a place for each. Raises the interpreter's own TypeErrors.
void bindArguments(const Method &method,
    PyObject *const *positional,
    std::size_t positionalCount,
    PyObject *keywordNames,
    std::span<PyObject *> slots);
// The same for a constructor's tuple and dict.
void bindArguments(const Method &method, PyObject *positional, PyObject *keywords, std::span<PyObject *> slots);

// From now on, functions and methods raise RuntimeError on all threads but the calling one.
void closeFunctions() noexcept;

namespace detail {
inline constinit bool functionsAreClosed = false; // guarded by the interpreter lock
void refuseOtherThreads();
} // namespace detail

inline void requireOpenFunctions() {
    if (detail::functionsAreClosed) [[unlikely]] {
        detail::refuseOtherThreads();
    }
}

namespace detail {

// Makes what was thrown the current exception, with a traceback entry that bears the name; gives null.
PyObject *fail(const char *qualifiedName) noexcept;
PyObject *fail(const char *className, const char *slot) noexcept;

template <auto body, class... Self>
PyObject *callBody(
    const Method &method, PyObject *const *positional, std::size_t count, PyObject *keywordNames, Self &...self) {
    if constexpr (requires { body(self...); }) {
        if (count != 0 || keywordNames != nullptr) [[unlikely]] {
            bindArguments(method, positional, count, keywordNames, {});
        }
        return body(self...).release();
    } else {
        const Signature &signature = method.signature;
        std::array<PyObject *, Signature::maximumParameters> slots;
        if (keywordNames != nullptr || count < signature.required() || count > signature.size()) [[unlikely]] {
            slots.fill(nullptr);
            bindArguments(method, positional, count, keywordNames, std::span(slots).first(signature.size()));
            positional = slots.data();
            count = signature.size();
        }
        return body(self..., Arguments(positional, count)).release();
    }
}

// The call of a function or method; `Class` is the record of a method's object, or void.
template <class Class, auto body> struct Call {
    static inline constinit const FunctionRecord *record = nullptr;

    static PyObject *call(PyObject *self, PyObject *const *values, Py_ssize_t count, PyObject *keywordNames) noexcept {
        try {
            requireOpenFunctions();
            const Method &method = *record->method;
            const auto given = static_cast<std::size_t>(count);
            if constexpr (std::is_void_v<Class>) {
                return callBody<body>(method, values, given, keywordNames);
            } else {
                return callBody<body>(method, values, given, keywordNames, *reinterpret_cast<Class *>(self));
            }
        } catch (...) {
            return fail(record->qualifiedName.c_str());
        }
    }
};

} // namespace detail

// The boundary between the interpreter and C++ exceptions for a class's slot, what functions have in Call: null stands
// for whatever `Ref body()` throws.
template <class Body> PyObject *callSlot(const char *className, const char *slot, Body &&body) noexcept {
    try {
        requireOpenFunctions();
        return std::forward<Body>(body)().release();
    } catch (...) {
        return detail::fail(className, slot);
    }
}

// `Ref body()` or `Ref body(Arguments)`.
template <auto body>
inline constexpr Entry function = {detail::Call<void, body>::call, &detail::Call<void, body>::record};

// `Ref body(Class &)` or `Ref body(Class &, Arguments)`.
template <class Class, auto body>
inline constexpr Entry method = {detail::Call<Class, body>::call, &detail::Call<Class, body>::record};

} // namespace sonetrix

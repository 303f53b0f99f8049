// Functions and methods that Python calls, each one line in a table: name, signature, docstring, C++ body.
//
// The signature is Python's own notation, "(p1: str | bytes, p2: str | bytes | None = None) -> int". It is read at
// compile time for what the call needs (names, what is required) and again, on request only, for `__signature__` and
// `__annotations__`; so what inspect shows is what the call does. The interpreter's builtin functions can show no
// annotations, hence a callable type of our own; it is called through the vectorcall protocol, as they are.
#pragma once

#include "errors.h"

#include <array>
#include <cstddef>
#include <span>
#include <string_view>

namespace sonetrix {

// The parameters of a signature, in order.
class Signature {
public:
    static constexpr std::size_t maximumParameters = 4;

    consteval Signature(const char *text) : text_(text) { // NOLINT(google-explicit-constructor): tables give plain text
        std::string_view rest = parameterList(text);
        while (!rest.empty()) {
            const std::string_view parameter = takeParameter(rest);
            if (size_ == maximumParameters) {
                throw "too many parameters";
            }
            names_[size_] = trim(parameter.substr(0, parameter.find_first_of(":=")));
            if (parameter.find('=') == std::string_view::npos) {
                required_ = size_ + 1;
            }
            ++size_;
        }
    }

    constexpr std::string_view text() const noexcept { return text_; }
    constexpr std::size_t size() const noexcept { return size_; }
    constexpr std::size_t required() const noexcept { return required_; }
    constexpr std::string_view name(std::size_t index) const noexcept { return names_[index]; }

    // What stands between the outer parentheses.
    static constexpr std::string_view parameterList(std::string_view text) {
        return text.substr(1, text.rfind(')') - 1);
    }
    // Cuts the first parameter off the list.
    static constexpr std::string_view takeParameter(std::string_view &list) {
        int depth = 0;
        std::size_t end = 0;
        while (end < list.size() && (depth > 0 || list[end] != ',')) {
            depth += (list[end] == '[') - (list[end] == ']');
            ++end;
        }
        const std::string_view parameter = trim(list.substr(0, end));
        list.remove_prefix(end < list.size() ? end + 1 : end);
        return parameter;
    }
    static constexpr std::string_view trim(std::string_view text) {
        const std::size_t first = text.find_first_not_of(' ');
        if (first == std::string_view::npos) {
            return {};
        }
        return text.substr(first, text.find_last_not_of(' ') - first + 1);
    }

private:
    const char *text_;
    std::array<std::string_view, maximumParameters> names_{};
    std::size_t size_ = 0;
    std::size_t required_ = 0;
};

// The arguments of one call, by parameter; null where an optional one was left out.
class Arguments {
public:
    explicit Arguments(PyObject *const *values) noexcept : values_(values) {}
    PyObject *operator[](std::size_t index) const noexcept { return values_[index]; }
    // The argument, or `fallback` where it was left out.
    PyObject *get(std::size_t index, PyObject *fallback) const noexcept {
        return values_[index] != nullptr ? values_[index] : fallback;
    }

private:
    PyObject *const *values_;
};

// One line of a table.
struct Method {
    const char *name;
    Signature signature;
    const char *doc;
    vectorcallfunc call; // function<body> or method<Class, body>
};

// A function or method as Python sees it.
struct FunctionObject {
    PyObject_HEAD vectorcallfunc call;
    const Method *method;
    PyObject *module;        // owned: a function that somebody still has keeps the module's state alive
    PyObject *qualifiedName; // owned; "sonetrix.engine.link", as it stands in tracebacks
    PyTypeObject *owner;     // owned; the class that a method's first argument must be of; null for a function
};

// The two callable types. Made before any table is added; whoever makes them keeps them alive.
struct FunctionTypes {
    Ref function;
    Ref method;
};
FunctionTypes makeFunctionTypes(PyObject *module);

// A function for a module or a class dictionary. In a class it is static: it goes into the dictionary as it is, since
// an object without a binding slot is what the interpreter fetches fastest.
Ref newFunction(const Method &method, const char *className = nullptr);
// Adds the table's methods to the class.
void addMethods(PyTypeObject *type, std::span<const Method> methods);

// Matches a call's arguments to the parameters; `slots` has a place for each. Raises the usual TypeErrors.
void bindArguments(const Method &method,
    PyObject *const *positional,
    std::size_t positionalCount,
    PyObject *keywordNames,
    std::span<PyObject *> slots);
// The same for a constructor's tuple and dict.
void bindArguments(const Method &method, PyObject *positional, PyObject *keywords, std::span<PyObject *> slots);

// The border between the interpreter and C++: whatever `body` throws becomes the current exception, with a traceback
// entry that bears the name, and the call returns `failure`.
template <class Body, class Result> Result border(const char *qualifiedName, Result failure, Body &&body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        translateException();
        addTraceback(qualifiedName);
        return failure;
    }
}

namespace detail {

// The same border for the calls that a FunctionObject makes.
PyObject *fail(PyObject *callable) noexcept;
// Checks a method's first argument; raises TypeError.
void requireSelf(const FunctionObject &function, PyObject *const *values, std::size_t count);

template <auto body, class... Self>
PyObject *callBody(
    const Method &method, PyObject *const *positional, std::size_t count, PyObject *keywordNames, Self &...self) {
    if constexpr (requires { body(self...); }) {
        if (count != 0 || keywordNames != nullptr) [[unlikely]] {
            bindArguments(method, positional, count, keywordNames, {});
        }
        return body(self...).release();
    } else {
        if (count == method.signature.size() && keywordNames == nullptr) {
            return body(self..., Arguments(positional)).release();
        }
        std::array<PyObject *, Signature::maximumParameters> slots{};
        bindArguments(method, positional, count, keywordNames, std::span(slots).first(method.signature.size()));
        return body(self..., Arguments(slots.data())).release();
    }
}

} // namespace detail

// The call of a function: `Ref body()` or `Ref body(Arguments)`.
template <auto body>
PyObject *function(PyObject *callable, PyObject *const *values, std::size_t count, PyObject *keywordNames) noexcept {
    const FunctionObject &self = *reinterpret_cast<FunctionObject *>(callable);
    try {
        return detail::callBody<body>(
            *self.method, values, static_cast<std::size_t>(PyVectorcall_NARGS(count)), keywordNames);
    } catch (...) {
        return detail::fail(callable);
    }
}

// The call of a method: `Ref body(Class &)` or `Ref body(Class &, Arguments)`.
template <class Class, auto body>
PyObject *method(PyObject *callable, PyObject *const *values, std::size_t count, PyObject *keywordNames) noexcept {
    const FunctionObject &self = *reinterpret_cast<FunctionObject *>(callable);
    const auto given = static_cast<std::size_t>(PyVectorcall_NARGS(count));
    try {
        if (given == 0 || !PyObject_TypeCheck(values[0], self.owner)) [[unlikely]] {
            detail::requireSelf(self, values, given);
        }
        return detail::callBody<body>(
            *self.method, values + 1, given - 1, keywordNames, *reinterpret_cast<Class *>(values[0]));
    } catch (...) {
        return detail::fail(callable);
    }
}

} // namespace sonetrix

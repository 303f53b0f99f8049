#pragma once

#include "errors.h"

#include <algorithm>
#include <array>
#include <cstddef>

namespace sonetrix {

// A name that the library looks up again and again, as an interned str; in the code it is written "name"_id. The module
// makes the strings when it is imported and lets them go when it is freed.
class InternedString : NonCopyable {
public:
    explicit InternedString(const char *text) noexcept : text_(text), next_(first_) { first_ = this; }
    ~InternedString() { static_cast<void>(string_.release()); } // the interpreter is gone by now, or never was

    PyObject *get() const noexcept { return string_.get(); }

    static void makeAll() {
        for (InternedString *name = first_; name != nullptr; name = name->next_) {
            name->string_ = checked(PyUnicode_InternFromString(name->text_));
        }
    }
    static void dropAll() noexcept {
        for (InternedString *name = first_; name != nullptr; name = name->next_) {
            name->string_.reset();
        }
    }

private:
    const char *text_;
    InternedString *next_;
    Ref string_;
    static inline constinit InternedString *first_ = nullptr;
};

namespace detail {
template <std::size_t size> struct Literal {
    consteval Literal(const char (&text)[size]) { // NOLINT(google-explicit-constructor): it stands for the text
        std::copy_n(text, size, characters.begin());
    }
    std::array<char, size> characters{};
};
template <Literal literal> inline InternedString internedString{literal.characters.data()};
} // namespace detail

template <detail::Literal literal> constexpr const InternedString &operator""_id() noexcept {
    return detail::internedString<literal>;
}

} // namespace sonetrix

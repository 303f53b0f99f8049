#pragma once

#include "errors.h"

namespace sonetrix {

// A name that the library looks up again and again, as an interned str. Objects of this class are static; the module
// makes the strings when it is imported and lets them go when it is freed.
class InternedString {
public:
    explicit InternedString(const char *text) noexcept : text_(text), next_(first_) { first_ = this; }
    InternedString(const InternedString &) = delete;
    InternedString &operator=(const InternedString &) = delete;
    ~InternedString() { static_cast<void>(string_.release()); } // the interpreter is gone by now, or never was

    PyObject *get() const noexcept { return string_.get(); }
    const char *text() const noexcept { return text_; }

    static void makeAll() {
        for (const InternedString *name = first_; name != nullptr; name = name->next_) {
            name->string_ = checked(PyUnicode_InternFromString(name->text_));
        }
    }
    static void dropAll() noexcept {
        for (const InternedString *name = first_; name != nullptr; name = name->next_) {
            name->string_.reset();
        }
    }

private:
    const char *text_;
    const InternedString *next_;
    mutable Ref string_; // names may stand in constant tables
    static inline constinit const InternedString *first_ = nullptr;
};

} // namespace sonetrix

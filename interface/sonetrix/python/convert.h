// Python objects to the engine's C types: one place for each kind of argument, with the error it gives.
#pragma once

#include "compatibility.h"
#include "errors.h"

#include <cstdint>
#include <span>

namespace sonetrix {

namespace detail {
// Whether an int is of the kind whose value can be read at once: below 2^30 in any case.
inline bool isCompact(PyObject *number) noexcept {
    return PyUnstable_Long_IsCompact(reinterpret_cast<PyLongObject *>(number)) != 0;
}
inline Py_ssize_t compactValue(PyObject *number) noexcept {
    return PyUnstable_Long_CompactValue(reinterpret_cast<PyLongObject *>(number));
}
// For std::int32_t and std::uint32_t.
template <class Integer> Integer convertToInteger(PyObject *object, const char *typeName);
} // namespace detail

// Integers. An int is taken as it is, anything else through its __index__, else its __int__; TypeError "an integer is
// required" without one. OverflowError "value too large to convert to <typeName>" beyond the range, which for an
// unsigned type is "can't convert negative value to <typeName>" below it.
inline std::int32_t toInt32(PyObject *object, const char *typeName = "int32_t") {
    if (PyLong_Check(object) && detail::isCompact(object)) [[likely]] {
        return static_cast<std::int32_t>(detail::compactValue(object));
    }
    return detail::convertToInteger<std::int32_t>(object, typeName);
}
inline std::uint32_t toUInt32(PyObject *object, const char *typeName = "uint32_t") {
    if (PyLong_Check(object) && detail::isCompact(object) && detail::compactValue(object) >= 0) [[likely]] {
        return static_cast<std::uint32_t>(detail::compactValue(object));
    }
    return detail::convertToInteger<std::uint32_t>(object, typeName);
}

// An int or what has __index__ (TypeError else), to an int32 as above.
std::int32_t toInt32FromIndex(PyObject *object, const char *typeName);

// A float is read directly, anything else through its __float__.
double toDouble(PyObject *object);

// Text for the engine: NUL-terminated bytes, used in place where the object holds them. `object` must outlive it.
class EngineText {
public:
    // No text: invalid; the engine would receive null.
    EngineText() noexcept = default;
    // A str through the "ascii" codec (UnicodeEncodeError), a bytes as it is; invalid for any other object.
    static EngineText fromName(PyObject *object) { return isAscii(object) ? inPlace(object) : convertName(object); }
    // A str through UTF-8 (UnicodeEncodeError), a bytes as it is; invalid for any other object.
    static EngineText fromValue(PyObject *object) { return isAscii(object) ? inPlace(object) : convertValue(object); }
    // As fromName, any other object through the constructor `bytes(object)`.
    static EngineText fromNameOrBuffer(PyObject *object);
    explicit operator bool() const noexcept { return text_ != nullptr; }
    const char *get() const noexcept { return text_; }
    Py_ssize_t size() const noexcept { return size_; }

private:
    EngineText(const char *text, Py_ssize_t size, Ref owner = {}) noexcept
        : text_(text), size_(size), owner_(std::move(owner)) {}
    static bool isAscii(PyObject *object) noexcept { return PyUnicode_Check(object) && PyUnicode_IS_ASCII(object); }
    static EngineText inPlace(PyObject *ascii) noexcept {
        return {static_cast<const char *>(PyUnicode_DATA(ascii)), PyUnicode_GET_LENGTH(ascii)};
    }
    static EngineText convertName(PyObject *object);
    static EngineText convertValue(PyObject *object);
    static EngineText fromBytes(PyObject *bytes, Ref owner = {}) noexcept;

    const char *text_ = nullptr;
    Py_ssize_t size_ = 0;
    Ref owner_;
};

// Fills the places with a sequence's items and says how many they are. TypeError and ValueError, as in "a, b =
// sequence", for what is none and for too many.
std::size_t unpack(PyObject *sequence, std::span<Ref> items);

// "Argument 'name' has incorrect type (expected x, got y)".
[[noreturn]] void raiseArgumentType(const char *argument, const char *expected, PyObject *given);
// "Expected x, got y".
[[noreturn]] void raiseExpected(const char *expected, PyObject *given);

// Refuses anything but exactly a str.
inline void requireStr(const char *argument, PyObject *given) {
    if (!PyUnicode_CheckExact(given)) {
        raiseArgumentType(argument, "str", given);
    }
}

// The module's own checks raise the plain Exception.
[[noreturn]] inline void raisePlain(const char *message) { raise(PyExc_Exception, message); }

} // namespace sonetrix

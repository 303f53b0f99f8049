// Typed values: what an engine value becomes in Python, and what a Python value becomes in the engine. Both lists, and
// with them parameters, meters and notifications, use this one place.
#pragma once

#include "module.h"

#include <cstdlib>
#include <memory>

namespace sonetrix {

// ------------------------------------------------------------------------------------------------ engine -> Python

namespace detail {
inline Ref element(std::uint32_t number) { return checked(PyLong_FromUnsignedLong(number)); }
inline Ref element(std::int32_t number) { return checked(PyLong_FromLong(number)); }
inline Ref element(float number) { return checked(PyFloat_FromDouble(static_cast<double>(number))); }
// Refuses whatever is no array. Its elements alone, or each in a pair with the array's type name.
Ref arrayToPython(const sonetrix_value_t &value, bool ofPairs = false);
} // namespace detail

// The value alone: int, float, bytes, or a tuple for an array. Exception "value type not accepted" for an unknown type
// code and for a null string. In line, since it is called for every element of every list.
inline Ref toPython(const sonetrix_value_t &value) {
    switch (value.type) {
    case SONETRIX_VALUE_UINT32:
        return detail::element(value.as.uint32);
    case SONETRIX_VALUE_INT32:
        return detail::element(value.as.int32);
    case SONETRIX_VALUE_FLOAT:
        return detail::element(value.as.float32);
    case SONETRIX_VALUE_DOUBLE:
        return checked(PyFloat_FromDouble(value.as.float64));
    case SONETRIX_VALUE_STRING:
        if (value.as.string != nullptr) {
            return checked(PyBytes_FromString(value.as.string));
        }
        [[fallthrough]];
    default:
        return detail::arrayToPython(value);
    }
}
// The pair (value, type name), arrays included.
Ref toTypedPair(const sonetrix_value_t &value);
// As a value list shows it: the pair, but an integer array as one pair for each element.
Ref toTypedElement(const sonetrix_value_t &value);

// ------------------------------------------------------------------------------------------------ Python -> engine

// The `type` argument of the append methods: None (deduce from the value), a type name or a ctypes class. It is
// compared by ==, in the order in which the branches of appendValue() ask.
class Selector {
public:
    explicit Selector(PyObject *object) noexcept : object_(object) {}

    bool isNone() const { return object_ == Py_None || (!isPlain() && equals(Py_None)); }
    bool isText(const InternedString &text) const;
    bool isCtypes(const InternedString &className) const;

private:
    // None and plain texts equal nothing but themselves, whatever stands on the other side.
    bool isPlain() const noexcept { return object_ == Py_None || PyUnicode_CheckExact(object_); }
    bool equals(PyObject *other) const;

    PyObject *object_;
};

struct Free {
    void operator()(void *memory) const noexcept { std::free(memory); }
};
template <class Element> using NativeArray = std::unique_ptr<Element[]>;

// A tuple's elements in a new native array, or null: silently when the tuple is empty or an element is of another kind,
// with an unraisable report when a conversion fails.
NativeArray<std::int32_t> tupleToInt32(PyObject *tuple) noexcept;
NativeArray<std::uint32_t> tupleToUInt32(PyObject *tuple) noexcept;
NativeArray<float> tupleToFloat(PyObject *tuple) noexcept;

// Stores a tuple as an array; false when it cannot be one. Errors are reported as unraisable and count as that.
template <class Target> bool appendTuple(const Target &target, PyObject *tuple, const Selector &selector) noexcept {
    const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(tuple));
    const auto store = [&](const auto &array) {
        if (array != nullptr) {
            target.add(array.get(), count);
        }
        return array != nullptr;
    };
    try {
        if (selector.isCtypes("c_int32"_id) || selector.isText(Target::int32ArrayName)) {
            return store(tupleToInt32(tuple));
        }
        if (selector.isCtypes("c_uint32"_id) || selector.isText(Target::uint32ArrayName)) {
            const auto array = tupleToUInt32(tuple);
            if constexpr (Target::storesUInt32Arrays) {
                return store(array);
            }
            return false;
        }
        if (selector.isCtypes("c_float"_id) || selector.isText("float"_id)) {
            return store(tupleToFloat(tuple));
        }
        if (selector.isNone()) {
            return store(tupleToInt32(tuple)) || store(tupleToFloat(tuple));
        }
        raisePlain("type not yet supported");
    } catch (...) {
        reportThrown(Target::appendTupleName, Report::tracebackAndHook);
        return false;
    }
}

// Stores a value as the selector asks, or as the value itself suggests. `Target` is one side's list, with:
//   add(const char *), add(int32_t), add(uint32_t), add(float), add(double), add(const element *, count)
//   int32ArrayName, uint32ArrayName, storesUInt32Arrays, charPointerIsString, appendTupleName
// Exception "value type not supported" or "tuple value type not supported", OverflowError beyond a type's range.
template <class Target> void appendValue(const Target &target, PyObject *value, const Selector &selector) {
    if (PyUnicode_Check(value) || PyBytes_Check(value)) {
        const EngineText text = EngineText::fromValue(value);
        if (selector.isNone() || (Target::charPointerIsString && selector.isCtypes("c_char_p"_id)) ||
            selector.isText("string"_id)) {
            return target.add(text.get());
        }
    } else if (PyLong_Check(value)) {
        if (selector.isNone() || selector.isCtypes("c_int32"_id) || selector.isText("int32"_id)) {
            return target.add(toInt32(value));
        }
        if (selector.isCtypes("c_uint32"_id) || selector.isText("uint32"_id)) {
            return target.add(toUInt32(value));
        }
    } else if (PyFloat_Check(value)) {
        if (selector.isNone() || selector.isCtypes("c_float"_id) || selector.isText("float"_id)) {
            return target.add(static_cast<float>(PyFloat_AS_DOUBLE(value)));
        }
        if (selector.isCtypes("c_double"_id) || selector.isText("double"_id)) {
            return target.add(PyFloat_AS_DOUBLE(value));
        }
    } else if (PyTuple_Check(value)) {
        if (!PyTuple_CheckExact(value)) {
            raiseExpected("tuple", value);
        }
        if (!appendTuple(target, value, selector)) {
            raisePlain("tuple value type not supported");
        }
        return;
    }
    raisePlain("value type not supported");
}

} // namespace sonetrix

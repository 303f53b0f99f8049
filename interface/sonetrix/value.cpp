#include "value.h"

#include <algorithm>
#include <array>
#include <type_traits>

namespace sonetrix {

namespace {

constexpr const char *notAccepted = "value type not accepted";

// ------------------------------------------------------------------------------------------------ engine -> Python

PyObject *typeName(const sonetrix_value_t &value) noexcept {
    static const std::array<const InternedString *, 8> typeNames = {&"uint32"_id, &"int32"_id, &"float"_id,
        &"string"_id, &"auint32"_id, &"aint32"_id, &"afloat"_id, &"double"_id}; // by type code
    return typeNames[value.type]->get();
}

Ref newPair(Ref first, PyObject *second) {
    Ref pair = checked(PyTuple_New(2));
    PyTuple_SET_ITEM(pair.get(), 0, first.release());
    PyTuple_SET_ITEM(pair.get(), 1, Py_NewRef(second));
    return pair;
}

template <class Element> Ref toTuple(const sonetrix_value_t &value, bool ofPairs) {
    const auto *elements = static_cast<const Element *>(value.as.array);
    const auto count = static_cast<Py_ssize_t>(value.count);
    if (elements == nullptr && count != 0) {
        raisePlain(notAccepted);
    }
    Ref tuple = checked(PyTuple_New(count));
    for (Py_ssize_t index = 0; index < count; ++index) {
        Ref number = detail::element(elements[index]);
        number = ofPairs ? newPair(std::move(number), typeName(value)) : std::move(number);
        PyTuple_SET_ITEM(tuple.get(), index, number.release());
    }
    return tuple;
}

// ------------------------------------------------------------------------------------------------ Python -> engine

template <class Element> bool isElement(PyObject *object) {
    if constexpr (std::is_floating_point_v<Element>) {
        return PyFloat_Check(object);
    } else if constexpr (std::is_signed_v<Element>) {
        return PyLong_Check(object);
    } else {
        return PyLong_Check(object) &&
               checked(PyObject_RichCompareBool, object, checked(PyLong_FromLong(0)).get(), Py_LT) == 0;
    }
}

// Of an element of the kind.
template <class Element> Element toElement(PyObject *object) {
    if constexpr (std::is_floating_point_v<Element>) {
        return static_cast<Element>(PyFloat_AS_DOUBLE(object));
    } else {
        const Ref number = PyLong_CheckExact(object) ? Ref::borrow(object) : checked(PyNumber_Long, object);
        if constexpr (std::is_signed_v<Element>) {
            return toInt32(number.get());
        } else {
            return toUInt32(number.get());
        }
    }
}

template <class Element> NativeArray<Element> convertTuple(PyObject *tuple, const char *name) noexcept {
    const auto count = static_cast<std::size_t>(PyTuple_GET_SIZE(tuple));
    PyObject *const *elements = &PyTuple_GET_ITEM(tuple, 0);
    // All are looked at before the first is converted, where that may run Python code and may fail.
    constexpr bool looksFirst = !std::is_floating_point_v<Element>;
    try {
        if (count == 0 || (looksFirst && !std::all_of(elements, elements + count, isElement<Element>))) {
            return nullptr;
        }
        auto array = std::make_unique_for_overwrite<Element[]>(count);
        for (std::size_t index = 0; index < count; ++index) {
            if (!looksFirst && !isElement<Element>(elements[index])) {
                return nullptr;
            }
            array[index] = toElement<Element>(elements[index]);
        }
        return array;
    } catch (...) {
        reportThrown(name, Report::tracebackAndHook);
        return nullptr;
    }
}

} // namespace

Ref detail::arrayToPython(const sonetrix_value_t &value, bool ofPairs) {
    switch (value.type) {
    case SONETRIX_VALUE_AUINT32:
        return toTuple<std::uint32_t>(value, ofPairs);
    case SONETRIX_VALUE_AINT32:
        return toTuple<std::int32_t>(value, ofPairs);
    case SONETRIX_VALUE_AFLOAT:
        return toTuple<float>(value, ofPairs);
    default:
        raisePlain(notAccepted);
    }
}

Ref toTypedPair(const sonetrix_value_t &value) {
    Ref plain = toPython(value); // first: it refuses the type codes that have no name
    return newPair(std::move(plain), typeName(value));
}

Ref toTypedElement(const sonetrix_value_t &value) {
    const bool holdsIntegers = value.type == SONETRIX_VALUE_AUINT32 || value.type == SONETRIX_VALUE_AINT32;
    return holdsIntegers ? detail::arrayToPython(value, true) : toTypedPair(value);
}

bool Selector::equals(PyObject *other) const {
    const Ref result = checked(PyObject_RichCompare, object_, other, Py_EQ);
    return checked(PyObject_IsTrue, result.get()) != 0;
}

bool Selector::isText(const InternedString &text) const {
    if (object_ == Py_None) {
        return false;
    }
    if (PyUnicode_CheckExact(object_)) {
        return PyUnicode_Compare(object_, text.get()) == 0;
    }
    return equals(text.get());
}

bool Selector::isCtypes(const InternedString &className) const {
    const Ref ctypes = moduleGlobal("ctypes"_id);
    // None and a text equal none of the classes: with the module as it was imported they need no comparison. At the
    // interpreter's end there is None in its place, and finalizers may still write to lists.
    const bool isOriginal = ctypes.get() == heldOrNull(Held::ctypes) || ctypes.get() == Py_None;
    return !(isPlain() && isOriginal) && equals(attribute(ctypes.get(), className).get());
}

NativeArray<std::int32_t> tupleToInt32(PyObject *tuple) noexcept {
    return convertTuple<std::int32_t>(tuple, "sonetrix.tupleToInt32");
}

NativeArray<std::uint32_t> tupleToUInt32(PyObject *tuple) noexcept {
    return convertTuple<std::uint32_t>(tuple, "sonetrix.tupleToUInt32");
}

NativeArray<float> tupleToFloat(PyObject *tuple) noexcept {
    return convertTuple<float>(tuple, "sonetrix.tupleToFloat");
}

} // namespace sonetrix

#include "value.h"

#include <array>

namespace sonetrix {

namespace {

constexpr const char *notAccepted = "value type not accepted";

// ------------------------------------------------------------------------------------------------ engine -> Python

PyObject *typeName(const sonetrix_value_t &value) noexcept {
    static const std::array<const InternedString *, 8> typeNames = {&"uint32"_id, &"int32"_id, &"float"_id,
        &"string"_id, &"auint32"_id, &"aint32"_id, &"afloat"_id, &"double"_id}; // by type code
    return typeNames[value.type]->get();
}

// The tuple of what `convert` makes of each element.
template <class Element, class Convert> Ref toTuple(const sonetrix_value_t &value, Convert &&convert) {
    const auto *elements = static_cast<const Element *>(value.as.array);
    const auto count = static_cast<Py_ssize_t>(value.count);
    if (elements == nullptr && count != 0) {
        raisePlain(notAccepted);
    }
    Ref tuple = checked(PyTuple_New(count));
    for (Py_ssize_t index = 0; index < count; ++index) {
        PyTuple_SET_ITEM(tuple.get(), index, convert(elements[index]).release());
    }
    return tuple;
}

template <class Element> Ref toTuple(const sonetrix_value_t &value) {
    return toTuple<Element>(value, [](Element number) { return detail::element(number); });
}

Ref newPair(Ref first, PyObject *second) {
    Ref pair = checked(PyTuple_New(2));
    PyTuple_SET_ITEM(pair.get(), 0, first.release());
    PyTuple_SET_ITEM(pair.get(), 1, Py_NewRef(second));
    return pair;
}

template <class Element> Ref toTupleOfPairs(const sonetrix_value_t &value) {
    return toTuple<Element>(value, [&](Element number) { return newPair(detail::element(number), typeName(value)); });
}

// ------------------------------------------------------------------------------------------------ Python -> engine

template <class Element> NativeArray<Element> newArray(Py_ssize_t count) {
    Element *memory = nullptr;
    if (count <= PY_SSIZE_T_MAX / static_cast<Py_ssize_t>(sizeof(Element)) && count > 0) {
        memory = static_cast<Element *>(std::calloc(static_cast<std::size_t>(count), sizeof(Element)));
    }
    if (memory == nullptr) {
        PyErr_NoMemory();
        throw PythonError();
    }
    return NativeArray<Element>(memory);
}

// The int's value, if it can be had without running Python code and fits.
template <class Element> bool convertPlainInt(PyObject *object, Element &element) noexcept {
    if (!PyLong_CheckExact(object) && !PyBool_Check(object)) {
        return false;
    }
    int overflow = 0;
    const long value = PyLong_AsLongAndOverflow(object, &overflow);
    element = static_cast<Element>(value);
    return overflow == 0 && value == static_cast<long>(element);
}

// What the three tuple conversions differ in. `convertPlain` is for elements that can be had without running Python
// code and without an error.
struct Int32Elements {
    using Element = std::int32_t;
    static constexpr const char *name = "sonetrix.tupleToInt32";
    static bool accepts(PyObject *object) { return PyLong_Check(object); }
    static Element convert(PyObject *object) { return toInt32(checked(PyNumber_Long, object).get()); }
    static constexpr auto convertPlain = convertPlainInt<Element>;
};

struct UInt32Elements {
    using Element = std::uint32_t;
    static constexpr const char *name = "sonetrix.tupleToUInt32";
    static bool accepts(PyObject *object) {
        return PyLong_Check(object) &&
               checked(PyObject_RichCompareBool, object, checked(PyLong_FromLong(0)).get(), Py_LT) == 0;
    }
    static Element convert(PyObject *object) { return toUInt32(checked(PyNumber_Long, object).get()); }
    static constexpr auto convertPlain = convertPlainInt<Element>;
};

struct FloatElements {
    using Element = float;
    static constexpr const char *name = "sonetrix.tupleToFloat";
    static bool accepts(PyObject *object) { return PyFloat_Check(object); }
    static Element convert(PyObject *object) { return static_cast<float>(PyFloat_AS_DOUBLE(object)); }
    static bool convertPlain(PyObject *object, Element &element) noexcept {
        if (!PyFloat_Check(object)) {
            return false;
        }
        element = convert(object);
        return true;
    }
};

// Tests every element first and converts then, since a conversion may run Python code and may fail.
template <class Elements> NativeArray<typename Elements::Element> convertCarefully(PyObject *tuple) {
    const Py_ssize_t count = PyTuple_GET_SIZE(tuple);
    for (Py_ssize_t index = 0; index < count; ++index) {
        if (!Elements::accepts(PyTuple_GET_ITEM(tuple, index))) {
            return nullptr;
        }
    }
    auto array = newArray<typename Elements::Element>(count);
    for (Py_ssize_t index = 0; index < count; ++index) {
        array[static_cast<std::size_t>(index)] = Elements::convert(PyTuple_GET_ITEM(tuple, index));
    }
    return array;
}

template <class Elements> NativeArray<typename Elements::Element> convertTuple(PyObject *tuple) noexcept {
    const Py_ssize_t count = PyTuple_GET_SIZE(tuple);
    if (count == 0) {
        return nullptr;
    }
    try {
        auto array = newArray<typename Elements::Element>(count);
        Py_ssize_t index = 0;
        while (index < count &&
               Elements::convertPlain(PyTuple_GET_ITEM(tuple, index), array[static_cast<std::size_t>(index)])) {
            ++index;
        }
        return index == count ? std::move(array) : convertCarefully<Elements>(tuple);
    } catch (...) {
        translateException();
        addTraceback(Elements::name);
        reportUnraisable(Elements::name, Report::tracebackAndHook);
        return nullptr;
    }
}

} // namespace

Ref detail::arrayToPython(const sonetrix_value_t &value) {
    switch (value.type) {
    case SONETRIX_VALUE_AUINT32:
        return toTuple<std::uint32_t>(value);
    case SONETRIX_VALUE_AINT32:
        return toTuple<std::int32_t>(value);
    case SONETRIX_VALUE_AFLOAT:
        return toTuple<float>(value);
    default:
        raisePlain(notAccepted);
    }
}

Ref toTypedPair(const sonetrix_value_t &value) {
    Ref plain = toPython(value); // first: it refuses the type codes that have no name
    return newPair(std::move(plain), typeName(value));
}

Ref toTypedElement(const sonetrix_value_t &value) {
    switch (value.type) {
    case SONETRIX_VALUE_AUINT32:
        return toTupleOfPairs<std::uint32_t>(value);
    case SONETRIX_VALUE_AINT32:
        return toTupleOfPairs<std::int32_t>(value);
    default:
        return toTypedPair(value);
    }
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

NativeArray<std::int32_t> tupleToInt32(PyObject *tuple) noexcept { return convertTuple<Int32Elements>(tuple); }

NativeArray<std::uint32_t> tupleToUInt32(PyObject *tuple) noexcept { return convertTuple<UInt32Elements>(tuple); }

NativeArray<float> tupleToFloat(PyObject *tuple) noexcept { return convertTuple<FloatElements>(tuple); }

} // namespace sonetrix

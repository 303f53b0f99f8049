#include "convert.h"

#include <type_traits>
#include <utility>

namespace sonetrix {

namespace {

constexpr const char *notAnInteger = "an integer is required";

// The object as an int: itself, or what its __index__ or __int__ gives.
Ref asInteger(PyObject *object) {
    if (PyLong_Check(object)) {
        return Ref::borrow(object);
    }
    if (PyIndex_Check(object)) {
        return checked(PyNumber_Index, object);
    }
    const PyNumberMethods *number = Py_TYPE(object)->tp_as_number;
    if (number == nullptr || number->nb_int == nullptr) {
        raise(PyExc_TypeError, notAnInteger);
    }
    Ref result = checked(number->nb_int, object);
    if (!PyLong_Check(result.get())) {
        raiseFormat(PyExc_TypeError, "__int__ returned non-int (type %.200s)", Py_TYPE(result.get())->tp_name);
    }
    return result;
}

} // namespace

template <class Integer> Integer detail::convertToInteger(PyObject *object, const char *typeName) {
    const Ref integer = asInteger(object);
    int overflow = 0;
    const long long value = PyLong_AsLongLongAndOverflow(integer.get(), &overflow);
    if (std::is_unsigned_v<Integer> && (overflow < 0 || (overflow == 0 && value < 0))) {
        raiseFormat(PyExc_OverflowError, "can't convert negative value to %s", typeName);
    }
    if (overflow != 0 || !std::in_range<Integer>(value)) {
        raiseFormat(PyExc_OverflowError, "value too large to convert to %s", typeName);
    }
    return static_cast<Integer>(value);
}
template std::int32_t detail::convertToInteger(PyObject *object, const char *typeName);
template std::uint32_t detail::convertToInteger(PyObject *object, const char *typeName);

std::int32_t toInt32FromIndex(PyObject *object, const char *typeName) {
    if (!PyIndex_Check(object)) {
        raise(PyExc_TypeError, notAnInteger);
    }
    return toInt32(checked(PyNumber_Index, object).get(), typeName);
}

double toDouble(PyObject *object) { return checked(PyFloat_AsDouble, object); }

EngineText EngineText::fromBytes(PyObject *bytes, Ref owner) noexcept {
    return {PyBytes_AS_STRING(bytes), PyBytes_GET_SIZE(bytes), std::move(owner)};
}

EngineText EngineText::convertName(PyObject *object) {
    if (PyUnicode_Check(object)) {
        checked(PyUnicode_AsASCIIString(object)); // not ASCII: the codec raises its own error
    }
    return PyBytes_Check(object) ? fromBytes(object) : EngineText();
}

EngineText EngineText::convertValue(PyObject *object) {
    if (PyUnicode_Check(object)) {
        Py_ssize_t size = 0;
        const char *text = PyUnicode_AsUTF8AndSize(object, &size);
        if (text == nullptr) {
            throw PythonError();
        }
        return {text, size};
    }
    return PyBytes_Check(object) ? fromBytes(object) : EngineText();
}

EngineText EngineText::fromNameOrBuffer(PyObject *object) {
    if (EngineText text = fromName(object)) {
        return text;
    }
    Ref bytes = checked(PyObject_CallOneArg, reinterpret_cast<PyObject *>(&PyBytes_Type), object);
    PyObject *borrowed = bytes.get();
    return fromBytes(borrowed, std::move(bytes));
}

std::size_t unpack(PyObject *sequence, std::span<Ref> items) {
    if (Py_TYPE(sequence)->tp_iter == nullptr && PySequence_Check(sequence) == 0) {
        raiseFormat(PyExc_TypeError, "cannot unpack non-iterable %.200s object", Py_TYPE(sequence)->tp_name);
    }
    std::size_t count = 0;
    forEach(sequence, [&](PyObject *item) {
        if (count == items.size()) {
            raiseFormat(PyExc_ValueError, "too many values to unpack (expected %zu)", items.size());
        }
        items[count++] = Ref::borrow(item);
    });
    return count;
}

void raiseArgumentType(const char *argument, const char *expected, PyObject *given) {
    raiseFormat(PyExc_TypeError, "Argument '%.200s' has incorrect type (expected %.200s, got %.200s)", argument,
        expected, Py_TYPE(given)->tp_name);
}

void raiseExpected(const char *expected, PyObject *given) {
    raiseFormat(PyExc_TypeError, "Expected %s, got %.200s", expected, Py_TYPE(given)->tp_name);
}

} // namespace sonetrix

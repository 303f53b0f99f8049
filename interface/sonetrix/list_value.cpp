// The class `listValue`: an engine value list.

#include "list_value.h"

namespace sonetrix {

namespace {

// ------------------------------------------------------------------------------------------------------- writing

class ValueTarget {
public:
    static inline const InternedString &int32ArrayName = "int32"_id;
    static inline const InternedString &uint32ArrayName = "uint32"_id;
    static constexpr bool storesUInt32Arrays = false;
    static constexpr bool charPointerIsString = false;
    static constexpr const char *appendTupleName = "sonetrix.listValue.appendTuple";

    explicit ValueTarget(ListValue &list) : list_(list) { list.writable(); }

    void add(const char *text) const { sonetrix_valueListAddS(list_.growing(), text); }
    void add(std::int32_t number) const { sonetrix_valueListAddI32(list_.growing(), number); }
    void add(std::uint32_t number) const { sonetrix_valueListAddU32(list_.growing(), number); }
    void add(float number) const { sonetrix_valueListAddF(list_.growing(), number); }
    void add(double number) const { sonetrix_valueListAddD(list_.growing(), number); }
    void add(const std::int32_t *elements, std::size_t count) const {
        sonetrix_valueListAddAi32(list_.growing(), elements, count);
    }
    void add(const float *elements, std::size_t count) const {
        sonetrix_valueListAddAfloat(list_.growing(), elements, count);
    }

private:
    ListValue &list_;
};

Ref append(ListValue &self, Arguments arguments) {
    appendElement(self, arguments[0], arguments.get(1, Py_None));
    return Ref::borrow(reinterpret_cast<PyObject *>(&self));
}

// ------------------------------------------------------------------------------------------------------- reading

std::int32_t readPlain(const sonetrix_value_t *value, void *user) {
    return readRecord(value, user, [](const sonetrix_value_t &record, PyObject *container) {
        checked(PyList_Append(container, toPython(record).get()));
    });
}

std::int32_t readTyped(const sonetrix_value_t *value, void *user) {
    return readRecord(value, user, [](const sonetrix_value_t &record, PyObject *container) {
        if (!PyList_Check(container)) {
            return reportContainer(container, "list", "sonetrix.listValue.create_list_value_type_nogil");
        }
        checked(PyList_Append(container, toTypedElement(record).get()));
    });
}

template <auto callback> Ref readObject(ListValue &object) {
    const auto list = object.list;
    Ref result = ListValue::read(list.get(), object.expected, callback);
    object.expected = PyList_GET_SIZE(result.get());
    return result;
}

constexpr Method methods[] = {
    {"dup", "() -> listValue", ListValue::dupDoc, method<ListValue, ListValue::dup>},
    {"merge", "(other: listValue)", ListValue::mergeDoc, method<ListValue, ListValue::merge>},
    {"append", "(v: str | bytes | int | float | tuple, type=None) -> listValue",
        "Appends a value to the current list.\n\n"
        "- v: str and bytes are stored as a string, int as int32, float as a 32-bit float, a tuple of int or of float\n"
        "  as an array\n"
        "- type: None, or what to store: \"string\", \"int32\", \"uint32\", \"float\", \"double\", or one of the\n"
        "  ctypes classes c_int32, c_uint32, c_float, c_double\n"
        "Returns: a reference to the listValue object itself\n"
        "Exception when value and type do not go together, OverflowError when the value is out of the type's range.",
        method<ListValue, append>},
    {"toList", "() -> list",
        "Returns an array made from the list elements.\n\n"
        "Strings are bytes, arrays are tuples.",
        method<ListValue, readObject<readPlain>>},
    {"toListType", "() -> list",
        "Returns an array made from the list elements. Each element is a tuple with value and type.\n\n"
        "An array of integers is a tuple of such pairs, one for each integer.",
        method<ListValue, readObject<readTyped>>},
    {"__reduce__", "()", ListValue::reduceDoc, method<ListValue, ListValue::refuseReduce>},
};

} // namespace

std::unique_ptr<sonetrix_cListValue_t, DestroyValueList> newKeyList(const char *key) {
    std::unique_ptr<sonetrix_cListValue_t, DestroyValueList> list(sonetrix_valueListNew());
    if (list == nullptr) {
        throw std::bad_alloc();
    }
    sonetrix_valueListAddS(list.get(), key);
    return list;
}

void appendElement(ListValue &list, PyObject *value, PyObject *selector) {
    appendValue(ValueTarget(list), value, Selector(selector));
}

bool hasOnlyStrings(ListValue &list) {
    const auto shared = list.list;
    const Ref others = ListValue::read(shared.get(), 0, [](const sonetrix_value_t *value, void *user) {
        return value->type == SONETRIX_VALUE_STRING ? 0 : readTyped(value, user);
    });
    return PyList_GET_SIZE(others.get()) == 0;
}

Ref takeToList(sonetrix_cListValue_t *list) {
    const Ref owner = ListValue::initOrEmpty(list);
    return ListValue::read(list, 0, readPlain);
}

void addListValue(PyObject *module) {
    ListValue::addClass(module,
        "listValue()\n--\n\n"
        "Utility class to wrap the C structure \"sonetrix_cListValue_t\" from SoneTrix in Python.",
        methods);
}

} // namespace sonetrix

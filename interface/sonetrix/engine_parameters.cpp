// engine: parameters.

#include "engine.h"
#include "list_key_value.h"
#include "list_value.h"
#include "python/gil.h"

namespace sonetrix {

namespace {

// The keys of getParam's argument, as a listValue.
Ref toKeyList(PyObject *keys) {
    Ref list = ListValue::newEmpty();
    ListValue &keyList = ListValue::of(list);
    const auto add = [&keyList](PyObject *key) {
        if (const EngineText text = EngineText::fromName(key)) {
            sonetrix_valueListAddS(keyList.writable(), text.get());
            return true;
        }
        return false;
    };
    if (add(keys)) {
        return list;
    }
    if (!PyList_Check(keys) && !PyTuple_Check(keys)) {
        raisePlain("only string/byte/list/tuple is accepted as input");
    }
    Ref iterator = checked(PyObject_GetIter(keys));
    while (Ref key = Ref::steal(PyIter_Next(iterator.get()))) {
        if (!add(key.get())) {
            appendElement(keyList, key.get(), Py_None); // getParams() refuses what is not a string
        }
    }
    if (PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
    return list;
}

Ref getParam(Arguments arguments) {
    requireEngine();
    Ref keys = toKeyList(arguments[0]);
    return callEngine("getParams"_id, keys.get());
}

// Refuses keys whose toListType() shows anything but strings; None has no such method.
void requireStrings(PyObject *keys) {
    Ref elements =
        ListValue::hasOriginalMethods(keys) ? toTypedList(ListValue::of(keys)) : callMethod(keys, "toListType"_id);
    Ref second = checked(PyLong_FromLong(1));
    Ref iterator = checked(PyObject_GetIter(elements.get()));
    while (Ref element = Ref::steal(PyIter_Next(iterator.get()))) {
        Ref type = checked(PyObject_GetItem(element.get(), second.get()));
        if (checked(PyObject_RichCompareBool(type.get(), "string"_id.get(), Py_NE)) != 0) {
            raisePlain("only string is accepted");
        }
    }
    if (PyErr_Occurred() != nullptr) {
        throw PythonError();
    }
}

Ref getParams(Arguments arguments) {
    if (arguments[0] != Py_None) {
        ListValue::require("k", arguments[0]);
    }
    sonetrix_engine_t *engine = requireEngine();
    requireStrings(arguments[0]);
    const auto keys = ListValue::of(arguments[0]).list;
    if (keys == nullptr) {
        return ListKeyValue::newEmpty();
    }
    return ListKeyValue::initOrEmpty(unlocked([&] { return sonetrix_engine_GetParams(engine, keys.get()); }));
}

template <auto setParameters> Ref setParams(Arguments arguments) {
    const auto parameters = ListKeyValue::require("k", arguments[0]).list;
    sonetrix_engine_t *engine = requireEngine();
    Ref written = ListKeyValue::newEmpty();
    if (parameters != nullptr) {
        sonetrix_cListKeyValue_t *list = ListKeyValue::of(written).writable();
        unlocked([&] { setParameters(engine, parameters.get(), list); });
    }
    return written;
}

constexpr const char *setParamsDoc =
    "Write the parameters using the provided key/value list.\n\n"
    "- k: a listKeyValue which contains the key/values that must be written\n"
    "Returns: a listKeyValue containing the parameters which were successfully written";

constexpr Method functions[] = {
    {"getParam", "(k: str | bytes | list | tuple) -> listKeyValue",
        "Reads the parameters with the provided key and returns it if present.\n\n"
        "- k: a key, or a list or tuple of keys; \"module.\" stands for all parameters of a module\n"
        "Returns: a listKeyValue containing the parameter, if found",
        function<getParam>},
    {"getParams", "(k: listValue) -> listKeyValue",
        "Reads the parameters from the keys in the provided list.\n\n"
        "- k: a listValue which contains the keys that must be read\n"
        "Returns: a listKeyValue containing the parameters, if found",
        function<getParams>},
    {"setParams", "(k: listKeyValue) -> listKeyValue", setParamsDoc,
        function<setParams<sonetrix_engine_SetParamsFull>>},
    {"setParamsCli", "(k: listKeyValue) -> listKeyValue", setParamsDoc,
        function<setParams<sonetrix_engine_SetParamsFullCli>>},
};

} // namespace

const std::span<const Method> engineParameterFunctions = functions;

} // namespace sonetrix

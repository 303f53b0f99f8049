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
    forEach(keys, [&](PyObject *key) {
        if (!add(key)) {
            appendElement(keyList, key, Py_None); // getParams() refuses what is not a string
        }
    });
    return list;
}

// Refuses keys whose toListType() shows anything but strings; None has no such method.
void requireStrings(PyObject *keys) {
    if (ListValue::hasOriginalMethods(keys) && hasOnlyStrings(ListValue::of(keys))) {
        return;
    }
    const Ref second = checked(PyLong_FromLong(1));
    forEach(callMethod(keys, "toListType"_id).get(), [&](PyObject *element) {
        const Ref type = checked(PyObject_GetItem, element, second.get());
        if (checked(PyObject_RichCompareBool, type.get(), "string"_id.get(), Py_NE) != 0) {
            raisePlain("only string is accepted");
        }
    });
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
    return ListKeyValue::initOrEmpty(unlocked(sonetrix_engine_GetParams, engine, keys.get()));
}

Ref getParam(Arguments arguments) {
    sonetrix_engine_t *engine = requireEngine();
    const EngineText key = EngineText::fromName(arguments[0]);
    if (!key || !isOriginalEngine() || !ListValue::isOriginalClass()) {
        return callEngine("getParams"_id, toKeyList(arguments[0]).get());
    }
    // The same, as long as no script has changed the classes.
    const auto keys = newKeyList(key.get());
    return ListKeyValue::initOrEmpty(unlocked(sonetrix_engine_GetParams, engine, keys.get()));
}

template <auto setParameters> Ref setParams(Arguments arguments) {
    const auto parameters = ListKeyValue::require("k", arguments[0]).list;
    sonetrix_engine_t *engine = requireEngine();
    Ref written = ListKeyValue::newEmpty();
    if (parameters != nullptr) {
        sonetrix_cListKeyValue_t *list = ListKeyValue::of(written).writable();
        unlocked(setParameters, engine, parameters.get(), list);
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

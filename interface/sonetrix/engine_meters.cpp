// engine: meters.

#include "engine.h"
#include "list_key_value.h"
#include "python/gil.h"

#include <mutex>
#include <string>

namespace sonetrix {

namespace {

// The engine's read function, while this library is the engine's meter manager.
sonetrix_readMeters_t readMeters = nullptr;
std::mutex managerMutex; // guards it; taken with the interpreter lock released

EngineText toKey(PyObject *object, const char *refusal) {
    EngineText key = EngineText::fromName(object);
    if (!key) {
        raisePlain(refusal);
    }
    return key;
}

constexpr const char *keyRefused = "key type not supported";
constexpr const char *inputRefused = "only string/bytes is accepted as input";

// ---------------------------------------------------------------------------------------------------- debug meters

// A value for the engine, released when it has been handed over.
class MeterValue : NonCopyable {
public:
    MeterValue(PyObject *value, PyObject *type) {
        const Selector selector(type);
        if (selector.isText(""_id)) {
            deduce(value);
        } else if (selector.isText("uint"_id) || selector.isText("uint32"_id)) {
            require(PyLong_Check(value), value, type);
            sonetrix_valueInitUInt32(&value_, toUInt32(value));
        } else if (selector.isText("int"_id) || selector.isText("int32"_id)) {
            require(PyLong_Check(value), value, type);
            sonetrix_valueInitInt32(&value_, toInt32(value));
        } else if (selector.isText("float"_id)) {
            require(PyFloat_CheckExact(value), value, type);
            sonetrix_valueInitFloat(&value_, static_cast<float>(PyFloat_AS_DOUBLE(value)));
        } else {
            // "string" too: a string meter is one whose type is left to be deduced.
            raisePlain("type not supported");
        }
    }
    ~MeterValue() { sonetrix_valueDeinit(&value_); }

    const sonetrix_value_t *get() const noexcept { return &value_; }

private:
    void deduce(PyObject *value) {
        if (const EngineText text = EngineText::fromValue(value)) {
            sonetrix_valueInitS(&value_, text.get());
        } else if (PyLong_Check(value)) {
            sonetrix_valueInitInt32(&value_, toInt32(value));
        } else if (PyFloat_Check(value)) {
            sonetrix_valueInitFloat(&value_, static_cast<float>(PyFloat_AS_DOUBLE(value)));
        } else {
            raisePlain("value type not supported");
        }
    }

    static void require(bool compatible, PyObject *value, PyObject *type) {
        if (!compatible) {
            raiseFormat(PyExc_Exception, "value type %S incompatible with provided value %S", type, value);
        }
    }

    sonetrix_value_t value_{};
};

Ref addDebugMeter(Arguments arguments) {
    const sonetrix_module_meters_type metersType = toMetersType(arguments[3]);
    sonetrix_engine_t *engine = requireEngine();
    const EngineText key = toKey(arguments[0], keyRefused);
    const MeterValue value(arguments[1], arguments.get(2, ""_id.get()));
    unlocked(sonetrix_engine_addDebugMeter, engine, metersType, key.get(), value.get());
    return none();
}

Ref delDebugMeter(Arguments arguments) {
    const sonetrix_module_meters_type metersType = toMetersType(arguments[1]);
    sonetrix_engine_t *engine = requireEngine();
    const EngineText key = toKey(arguments[0], keyRefused);
    unlocked(sonetrix_engine_delDebugMeter, engine, metersType, key.get());
    return none();
}

// --------------------------------------------------------------------------------------------------------- reading

// The entries of a list whose key begins with the prefix, as a new listKeyValue.
Ref filteredByPrefix(const Ref &meters, std::string_view prefix) {
    Ref dict = toDictType(ListKeyValue::of(meters).list.get());
    Ref filtered = ListKeyValue::newEmpty();
    Py_ssize_t position = 0;
    PyObject *key = nullptr;
    PyObject *value = nullptr;
    while (PyDict_Next(dict.get(), &position, &key, &value) != 0) {
        const std::string_view name(PyBytes_AS_STRING(key), static_cast<std::size_t>(PyBytes_GET_SIZE(key)));
        if (name.starts_with(prefix)) {
            appendTyped(ListKeyValue::of(filtered), key, value);
        }
    }
    return filtered;
}

Ref getLastMeter(Arguments arguments) {
    const sonetrix_module_meters_type metersType = toMetersType(arguments[1]);
    sonetrix_engine_t *engine = requireEngine();
    const EngineText text = toKey(arguments.get(0, ""_id.get()), inputRefused);
    const std::string_view key(text.get(), static_cast<std::size_t>(text.size()));
    const std::size_t stop = key.find('.');
    const std::string module(key.substr(0, stop));
    Ref meters = ListKeyValue::initOrEmpty(unlocked(sonetrix_engine_GetLastMeters, engine, module.c_str(), metersType));
    return stop == std::string_view::npos ? meters : filteredByPrefix(meters, key);
}

// Slow or fast, or Exception; unlike the other functions, these two take any int32 and check it themselves.
sonetrix_module_meters_type requireMetersType(std::int32_t number) {
    if (number != SONETRIX_METERS_SLOW && number != SONETRIX_METERS_FAST) {
        raisePlain("Meters type not valid");
    }
    return static_cast<sonetrix_module_meters_type>(number);
}

std::int32_t toMetersNumber(PyObject *argument) { return argument == nullptr ? 2 : toInt32(argument); }

sonetrix_readMeters_t becomeMeterManager(sonetrix_engine_t *engine) {
    sonetrix_readMeters_t read = nullptr;
    const std::int32_t status = unlocked([&] {
        const std::lock_guard guard(managerMutex);
        read = readMeters;
        const std::int32_t result = read == nullptr ? sonetrix_engine_registerMeterManager(engine, &read) : 0;
        if (result == 0) {
            readMeters = read;
        }
        return result;
    });
    if (status != 0) {
        raisePlain("couldn't register CLI as meter manager");
    }
    if (read == nullptr) {
        raisePlain("Callback to read meters is not valid");
    }
    return read;
}

Ref getMeters(Arguments arguments) {
    const std::int32_t number = toMetersNumber(arguments[1]);
    sonetrix_engine_t *engine = requireEngine("Engine not initialized");
    const sonetrix_readMeters_t read = becomeMeterManager(engine);
    const EngineText module = toKey(arguments.get(0, ""_id.get()), inputRefused);
    const sonetrix_module_meters_type metersType = requireMetersType(number);
    return ListKeyValue::initOrEmpty(unlocked(read, engine, module.get(), metersType));
}

Ref getMeterInfo(Arguments arguments) {
    const std::int32_t number = toMetersNumber(arguments[0]);
    sonetrix_engine_t *engine = requireEngine();
    const sonetrix_module_meters_type metersType = requireMetersType(number);
    return ListKeyValue::init(unlocked(sonetrix_engine_meterInfoList, engine, metersType));
}

Ref unregisterMetersManager() {
    sonetrix_engine_t *engine = requireEngine("Engine not initialized");
    unlocked([&] {
        const std::lock_guard guard(managerMutex);
        sonetrix_engine_unregisterMeterManager(engine);
        readMeters = nullptr;
    });
    return none();
}

constexpr Method functions[] = {
    {"addDebugMeter", "(k: str | bytes, v: str | bytes | int | float, type: str = '', meters_type: int = 1)",
        "Add debug meter. (this require that sonetrix is compiled to support this feature)\n\n"
        "- k: the meter's key, \"module.name\"\n"
        "- v: the meter's value\n"
        "- type: type to use for the value; if empty is deduced to int/float/string, otherwise strings: uint, int,\n"
        "  float and string\n"
        "- meters_type: engine.METER_SLOW or engine.METER_FAST\n"
        "An explicit type \"string\" is refused: leave the type empty for a string meter.",
        function<addDebugMeter>},
    {"delDebugMeter", "(k: str | bytes, meters_type: int = 1)",
        "Delete a debug meter.\n\n"
        "- k: the meter's key\n"
        "- meters_type: engine.METER_SLOW or engine.METER_FAST",
        function<delDebugMeter>},
    {"getLastMeter", "(k: str | bytes = '', meters_type: int = 1) -> listKeyValue",
        "Reads the meters that a module emitted last.\n\n"
        "- k: the module's name, optionally followed by \".\" and the beginning of a meter's name\n"
        "- meters_type: engine.METER_SLOW or engine.METER_FAST\n"
        "Returns: a listKeyValue with the meters",
        function<getLastMeter>},
    {"getMeters", "(module: str | bytes = '', meters_type: int = 2) -> listKeyValue",
        "Reads the current set of meters for all modules. Available only if no meter manager (like the\n"
        "poller module) is registered, because the engine class registers itself as the meters manager\n\n"
        "- module: a module's name, or empty for all modules\n"
        "- meters_type: engine.METER_SLOW or engine.METER_FAST; has to be given\n"
        "Returns: a listKeyValue with the meters",
        function<getMeters>},
    {"getMeterInfo", "(meters_type: int = 2) -> listKeyValue",
        "Describes the meters that the engine offers.\n\n"
        "- meters_type: engine.METER_SLOW or engine.METER_FAST; has to be given\n"
        "Returns: a listKeyValue with a description by meter key",
        function<getMeterInfo>},
    {"unregisterMetersManager", "()",
        "Unregister the engine Python class as the meter manager.\n\n"
        "Another manager can be registered then; the next getMeters registers the class again.",
        function<unregisterMetersManager>},
};

} // namespace

const std::span<const Method> engineMeterFunctions = functions;

} // namespace sonetrix

// engine: modules, ports and links.

#include "engine.h"
#include "list_key_value.h"
#include "list_value.h"
#include "log.h"
#include "python/interpreter_guard.h"

#include <string>

namespace sonetrix {

namespace {

// ------------------------------------------------------------------------------------------------- module iteration

// What the engine's iteration hands to the callbacks is a Python list. They run with the interpreter lock released, so
// each takes it for itself; whatever goes wrong stays in the callback. A thread that finalisation would hang here would
// hold the engine's own locks, hence the entry that may be refused.
template <class Body> std::int32_t inModuleCallback(void *user, Body &&body) noexcept {
    if (const EngineThreadEntry entry(EngineThreadEntry::LockOrder::ignore); entry) {
        const Ref list = Ref::borrow(static_cast<PyObject *>(user));
        body(list.get());
    }
    return 0;
}

void requireList(PyObject *list) {
    if (!PyList_Check(list) && list != Py_None) {
        raiseExpected("list", list);
    }
}

void append(PyObject *list, const Ref &item) {
    if (list == Py_None) {
        raise(PyExc_AttributeError, "'NoneType' object has no attribute 'append'");
    }
    checked(PyList_Append(list, item.get()));
}

// Runs `body`; an exception is logged with its traceback, and one from the logging is reported as unraisable.
template <class Body> void orLog(const char *prefix, const char *reportName, Body &&body) noexcept {
    try {
        try {
            body();
        } catch (...) {
            translateException();
            addTraceback(reportName);
            warnWithTraceback(prefix);
        }
    } catch (...) {
        reportThrown(reportName);
    }
}

// Runs `body`; an exception is reported as unraisable.
template <class Body> void orReport(const char *reportName, Body &&body) noexcept {
    try {
        body();
    } catch (...) {
        reportThrown(reportName);
    }
}

std::int32_t addName(const sonetrix_module_t *module, void *user) {
    return inModuleCallback(user, [module](PyObject *list) {
        constexpr const char *reportName = "sonetrix.engine.create_list_module_name";
        orReport(reportName, [&] {
            requireList(list);
            orLog("exception in callback module name: ", reportName,
                [&] { append(list, checked(PyBytes_FromString(module->name))); });
        });
    });
}

// -------------------------------------------------------------------------------------------- information records

void set(const Ref &dict, const InternedString &key, const Ref &value) {
    checked(PyDict_SetItem(dict.get(), key.get(), value.get()));
}

Ref portRecords(std::span<sonetrix_port_t *const> ports, bool withLinks) {
    Ref records = checked(PyList_New(0));
    for (const sonetrix_port_t *port : ports) {
        Ref record = checked(PyDict_New());
        set(record, "name"_id, checked(PyBytes_FromString(port->name)));
        set(record, "type"_id, checked(PyLong_FromUnsignedLong(port->type)));
        if (withLinks && port->link != nullptr) {
            set(record, "link"_id, checked(PyBytes_FromString(port->link)));
        }
        append(records.get(), record);
    }
    return records;
}

// The dict of a list that the engine handed over; an empty one for null.
Ref takeToDict(sonetrix_cListKeyValue_t *list) {
    const Ref owner = ListKeyValue::initOrEmpty(list);
    return toDict(ListKeyValue::of(owner).list.get());
}

void setStartParameters(const Ref &record, const sonetrix_module_t &module) {
    char *library = nullptr;
    sonetrix_cListKeyValue_t *configuration = nullptr;
    const std::int32_t status = unlocked(
        sonetrix_engine_ModuleGetStartParameter, unlocked(sonetrix_engineGet), &module, &library, &configuration);
    if (status != 0) {
        return;
    }
    const std::unique_ptr<char, Free> ownedLibrary(library);
    const Ref configurationDict = takeToDict(configuration);
    if (library == nullptr) {
        raisePlain("module without a library");
    }
    set(record, "library"_id, checked(PyBytes_FromString(library)));
    set(record, "configuration"_id, configurationDict);
}

Ref currentParameters(const sonetrix_module_t &module) {
    const std::string request = std::string(module.name) + ".";
    const auto keys = newKeyList(request.c_str());
    return takeToDict(unlocked(sonetrix_engine_GetParams, unlocked(sonetrix_engineGet), keys.get()));
}

Ref moduleRecord(const sonetrix_module_t &module) {
    Ref record = checked(PyDict_New());
    set(record, "name"_id, checked(PyBytes_FromString(module.name)));
    set(record, "type"_id, checked(PyLong_FromUnsignedLong(module.type)));
    if (unlocked(sonetrix_engine_DriverIsLoaded, module.reference) == 0) {
        set(record, "src"_id, portRecords({module.sources, module.sourceCount}, false));
        set(record, "sink"_id, portRecords({module.sinks, module.sinkCount}, true));
    }
    if (module.type == 1) {
        setStartParameters(record, module);
    }
    set(record, "param"_id, currentParameters(module));
    return record;
}

std::int32_t addRecord(const sonetrix_module_t *module, void *user) {
    return inModuleCallback(user, [module](PyObject *list) {
        constexpr const char *reportName = "sonetrix.engine.create_list_module_info";
        orLog("exception in callback module info: ", reportName, [&] {
            requireList(list);
            orReport(reportName, [&] { append(list, moduleRecord(*module)); });
        });
    });
}

Ref collectModules(sonetrix_engine_t *engine, sonetrix_moduleCallback_t callback) {
    Ref list = checked(PyList_New(0));
    unlocked(sonetrix_engine_ForEachModuleSafe, engine, callback, list.get());
    return list;
}

// ------------------------------------------------------------------------------------------------------- functions

Ref status(std::int32_t code) { return checked(PyLong_FromLong(code)); }

template <auto getList> Ref listOfNames() { return takeToList(ask(getList)); }

Ref newModule(Arguments arguments) {
    sonetrix_engine_t *engine = requireEngine();
    const EngineText name = EngineText::fromNameOrBuffer(arguments[0]);
    const EngineText identifier = EngineText::fromNameOrBuffer(arguments[1]);
    const auto create = [&](const sonetrix_cListKeyValue_t *info) {
        return status(unlocked(sonetrix_engine_ModuleNew, engine, name.get(), identifier.get(), info));
    };
    if (arguments[2] == Py_None) {
        return create(nullptr);
    }
    const auto info = ListKeyValue::require("info", arguments[2]).list;
    return create(info.get());
}

Ref delModule(Arguments arguments) {
    sonetrix_engine_t *engine = requireEngine();
    const EngineText name = EngineText::fromNameOrBuffer(arguments[0]);
    return status(unlocked(sonetrix_engine_ModuleDelete, engine, name.get()));
}

Ref getModuleNames() { return collectModules(requireEngine(), addName); }

Ref getModuleInfos() { return collectModules(requireEngine(), addRecord); }

Ref getUsageInfo() {
    sonetrix_engine_t *engine = requireEngine();
    Ref names = collectModules(engine, addName);
    Ref usages = checked(PyDict_New());
    forEach(names.get(), [&](PyObject *name) {
        const EngineText text = EngineText::fromNameOrBuffer(name);
        float absolute = 0;
        float relative = 0;
        std::uint32_t processId = 0;
        const std::int32_t failed =
            unlocked(sonetrix_engine_ModuleUsage, engine, text.get(), &absolute, &relative, &processId);
        if (failed != 0) {
            return;
        }
        Ref usage = checked(PyDict_New());
        set(usage, "absolute"_id, checked(PyFloat_FromDouble(static_cast<double>(absolute))));
        set(usage, "relative"_id, checked(PyFloat_FromDouble(static_cast<double>(relative))));
        set(usage, "processId"_id, checked(PyLong_FromUnsignedLong(processId)));
        checked(PyDict_SetItem(usages.get(), name, usage.get()));
    });
    return usages;
}

Ref getLink(Arguments arguments) {
    sonetrix_engine_t *engine = requireEngine();
    const EngineText port = EngineText::fromNameOrBuffer(arguments[0]);
    return takeToList(unlocked(sonetrix_engine_GetLinkPort, engine, port.get()));
}

// link() is stricter than the other functions: of the buffers it takes only bytearray.
EngineText toUnusualPortName(PyObject *object, const char *refusal) {
    if (!PyByteArray_Check(object)) {
        Ref type = checked(PyObject_Str, reinterpret_cast<PyObject *>(Py_TYPE(object)));
        raiseFormat(PyExc_ValueError, "%s (%U)", refusal, type.get());
    }
    return EngineText::fromNameOrBuffer(object);
}

inline EngineText toPortName(PyObject *object, const char *refusal) {
    EngineText text = EngineText::fromName(object);
    return text ? std::move(text) : toUnusualPortName(object, refusal);
}

Ref link(Arguments arguments) {
    sonetrix_engine_t *engine = requireEngine();
    PyObject *second = arguments.get(1, Py_None);
    const EngineText p1 = toPortName(arguments[0], "p1 has to be string or bytes");
    const EngineText p2 = second == Py_None ? EngineText() : toPortName(second, "p2 has to be string or bytes or None");
    return status(unlocked(sonetrix_engine_LinkPort, engine, p1.get(), p2.get()));
}

constexpr Method functions[] = {
    {"listAvailableModules", "() -> list[bytes]",
        "Lists all the modules for which a valid manifest was found at startup.\n\n"
        "Returns: the identifiers that newModule takes",
        function<listOfNames<sonetrix_engine_GetModulesList>>},
    {"newModule", "(name: str | bytes, identifier: str | bytes, info: listKeyValue | None) -> int",
        "Creates a module in the processing graph.\n\n"
        "- name: the new module's name\n"
        "- identifier: which module to create, see listAvailableModules\n"
        "- info: the module's start configuration, or None\n"
        "Returns: 0 if the module was created correctly, else the engine's status",
        function<newModule>},
    {"delModule", "(name: str | bytes) -> int",
        "Deletes a module from the processing graph, with its links.\n\n"
        "Returns: 0 if the module was deleted, else the engine's status",
        function<delModule>},
    {"getModuleNames", "() -> list[bytes]",
        "Lists the modules in the processing graph.\n\n"
        "Returns: the modules' names in the engine's order",
        function<getModuleNames>},
    {"getModuleInfos", "() -> list[dict]",
        "Describes the modules in the processing graph.\n\n"
        "Returns: a dict for each module, with \"name\" (bytes), \"type\" (int), \"src\" and \"sink\" (its ports,\n"
        "each a dict with \"name\", \"type\" and, on a linked sink, \"link\"), \"library\" (bytes) and\n"
        "\"configuration\" (dict) of a module that has them, and \"param\" (dict), its current parameters",
        function<getModuleInfos>},
    {"getUsageInfo", "() -> dict[bytes, dict]",
        "Reads how much processing time each module takes.\n\n"
        "Returns: by module name a dict with \"absolute\" and \"relative\" (percent, as the engine measures them) and\n"
        "\"processId\"",
        function<getUsageInfo>},
    {"getPortNames", "() -> list[bytes]",
        "Lists the ports of all modules.\n\n"
        "Returns: the ports' names in the engine's order",
        function<listOfNames<sonetrix_engine_GetAllPortNames>>},
    {"getLink", "(p: str | bytes) -> list[bytes]",
        "Lists the ports that are linked to a port.\n\n"
        "Returns: their names; an empty list for an unknown port",
        function<getLink>},
    {"link", "(p1: str | bytes, p2: str | bytes | None = None) -> int",
        "Links two ports.\n\n"
        "- p1: the first port\n"
        "- p2: the second port; if an empty string or no argument was provided, unlinks all the links\n"
        "Returns: 0 if the link was created correctly, else the engine's status",
        function<link>},
};

} // namespace

const std::span<const Method> engineModuleFunctions = functions;

} // namespace sonetrix

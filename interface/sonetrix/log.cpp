// The class `log`: the engine's log for Python.

#include "log.h"

#include "python/gil.h"
#include "python/types.h"

namespace sonetrix {

namespace {

constexpr const char *levelType = "enum sonetrix_log_level";

// ------------------------------------------------------------------------------------------------------- messages

// A message argument must be exactly of its class; None comes through, to be refused in its own words later.
void requireMessage(PyObject *message, PyTypeObject *type) {
    if (!Py_IS_TYPE(message, type) && message != Py_None) {
        raiseArgumentType("message", type->tp_name, message);
    }
}

Ref logb(Arguments arguments) {
    const sonetrix_log_level_t level = toUInt32(arguments[0], levelType);
    requireMessage(arguments[1], &PyBytes_Type);
    if (arguments[1] == Py_None) {
        raise(PyExc_TypeError, "expected bytes, NoneType found");
    }
    logString(level, PyBytes_AS_STRING(arguments[1]));
    return none();
}

Ref log(Arguments arguments) {
    const sonetrix_log_level_t level = toUInt32(arguments[0], levelType);
    requireMessage(arguments[1], &PyUnicode_Type);
    Ref write = attribute(moduleGlobal("log"_id).get(), "logb"_id);
    if (arguments[1] == Py_None) {
        raise(PyExc_AttributeError, "'NoneType' object has no attribute 'encode'");
    }
    Ref text = checked(PyUnicode_AsUTF8String(arguments[1]));
    Ref number = checked(PyLong_FromUnsignedLong(level));
    call(write.get(), number.get(), text.get());
    return none();
}

// The named levels. Their functions look `log.log` and the constant up at each call, so that either can be replaced.
// As long as nobody has changed the class, which its version shows, they write to the engine's log at once: what the
// look-ups would find is known.
struct Level {
    const InternedString &constant;
    sonetrix_log_level_t value;
};

const Level levels[] = {
    {"TRACE"_id, SONETRIX_LOG_TRACE},
    {"DEBUG"_id, SONETRIX_LOG_DEBUG},
    {"INFO"_id, SONETRIX_LOG_INFO},
    {"WARN"_id, SONETRIX_LOG_WARN},
    {"ERROR"_id, SONETRIX_LOG_ERROR},
    {"FATAL"_id, SONETRIX_LOG_FATAL},
};

OriginalClass originalClass;

// Whether `log` in the module is known to be the class as it was made.
bool nothingReplaced() {
    PyObject *logClass = held(Held::logClass);
    return PyDict_GetItemWithError(moduleNames(), "log"_id.get()) == logClass &&
           originalClass.isUnchanged(reinterpret_cast<PyTypeObject *>(logClass));
}

template <std::size_t index> Ref logAtLevel(Arguments arguments) {
    requireMessage(arguments[0], &PyUnicode_Type);
    if (nothingReplaced() && arguments[0] != Py_None) [[likely]] {
        logString(levels[index].value, EngineText::fromValue(arguments[0]).get());
        return none();
    }
    const Ref logClass = moduleGlobal("log"_id);
    Ref write = attribute(logClass.get(), "log"_id);
    Ref level = attribute(logClass.get(), levels[index].constant);
    call(write.get(), level.get(), arguments[0]);
    return none();
}

// ---------------------------------------------------------------------------------------------- levels and targets

template <auto get> Ref getLevel() { return checked(PyLong_FromUnsignedLong(unlocked(get))); }

template <auto set> Ref setLevel(Arguments arguments) {
    const sonetrix_log_level_t level = toUInt32(arguments[0], levelType);
    unlocked(set, level);
    return none();
}

template <auto set> Ref setTarget(Arguments arguments) {
    const std::int32_t on = checked(PyObject_IsTrue, arguments.get(0, Py_True));
    unlocked(set, on);
    return none();
}

Ref logTime(Arguments arguments) {
    const std::int32_t on = toInt32FromIndex(arguments[0], "int");
    unlocked([&] {
        sonetrix_log_time(on);
        sonetrix_log_file_time(on);
    });
    return none();
}

Ref logOnFile(Arguments arguments) {
    const std::int32_t timeOn = arguments[1] == nullptr ? -1 : toInt32FromIndex(arguments[1], "int");
    const EngineText path = EngineText::fromName(arguments[0]);
    if (!path) {
        raisePlain("filename type not supported");
    }
    unlocked([&] {
        if (timeOn >= 0) {
            sonetrix_log_file_time(timeOn);
        }
        sonetrix_log_filename(path.size() == 0 ? nullptr : path.get());
    });
    return none();
}

// ------------------------------------------------------------------------------------------------------- the class

constexpr const char *getLevelDoc = "Returns the log level for the current session.\n\n"
                                    "Returns: an int value corresponding to the current log level";
constexpr const char *setLevelDoc =
    "Changes the log level for the current session. TRACE level can be used only in debug builds.\n\n"
    "- level: the new threshold; messages below it are not written";

constexpr Method functions[] = {
    {"getLevel", "() -> sonetrix_log_level_t", getLevelDoc, function<getLevel<sonetrix_log_GetLogLevel>>,
        Annotations::yes},
    {"setLevel", "(level: int)", setLevelDoc, function<setLevel<sonetrix_log_SetLogLevel>>},
    {"logb", "(level: int, message: bytes)",
        "Logs a string with the provided log level.\n\n"
        "- level: the level of the message, 0 to 4294967295 (OverflowError)\n"
        "- message: the bytes which must be logged",
        function<logb>},
    {"log", "(level: int, message: str)",
        "Logs a string with the provided log level.\n\n"
        "- level: the level of the message, 0 to 4294967295 (OverflowError)\n"
        "- message: the string which must be logged",
        function<log>},
    {"trace", "(message: str)", "Logs a string at the TRACE level.", function<logAtLevel<0>>},
    {"debug", "(message: str)", "Logs a string at the DEBUG level.", function<logAtLevel<1>>},
    {"info", "(message: str)", "Logs a string at the INFO level.", function<logAtLevel<2>>},
    {"warn", "(message: str)", "Logs a string at the WARN level.", function<logAtLevel<3>>},
    {"error", "(message: str)", "Logs a string at the ERROR level.", function<logAtLevel<4>>},
    {"fatal", "(message: str)", "Logs a string at the FATAL level.", function<logAtLevel<5>>},
    {"logTime", "(timeOn: int)",
        "Enable/Disable log time info\n\n"
        "- timeOn: 1 = time stamps on the console and in the log file, 0 = none",
        function<logTime>},
    {"logOnFile", "(filename: str | bytes, timeOn: int = -1)",
        "If not already opened, write logs to the provided filename in addition to stdout.\n\n"
        "- filename: the file's path, ASCII; an empty one ends logging to a file\n"
        "- timeOn: 1 = enable log time, 0 = disable, -1 not change previous settings",
        function<logOnFile>},
    {"logSysLog", "(on: bool = True)",
        "Enables or disable writing logs to the syslog.\n\n"
        "- on: a boolean to indicate if the syslog must be activated or deactivated",
        function<setTarget<sonetrix_log_syslog>>},
    {"logJournal", "(on: bool = True)",
        "Enables or disable writing logs to the journald.\n\n"
        "- on: a boolean to indicate if the syslog must be activated or deactivated",
        function<setTarget<sonetrix_log_journald>>},
    {"getLevelJournal", "() -> sonetrix_log_level_t", getLevelDoc, function<getLevel<sonetrix_log_GetLogLevelJournal>>,
        Annotations::yes},
    {"setLevelJournal", "(level: int)", setLevelDoc, function<setLevel<sonetrix_log_SetLogLevelJournal>>},
};

} // namespace

void logString(sonetrix_log_level_t level, const char *message) {
    unlocked(sonetrix_log_LogString, level, "python", 0, 1, message);
}

void warnWithTraceback(const char *prefix) {
    // traceback.format_exc() formats the exception that is being handled, so this one has to be that for a moment.
    Ref exception = Ref::steal(PyErr_GetRaisedException());
    Ref text;
    {
        const HandledException handled(exception.get());
        text = callMethod(moduleGlobal("traceback"_id).get(), "format_exc"_id);
    }
    Ref message = checked(PyUnicode_FromFormat, "%s%S", prefix, text.get());
    callMethod(moduleGlobal("log"_id).get(), "warn"_id, message.get());
}

void addLog(PyObject *module) {
    Ref dictionary = checked(Py_BuildValue("{ssss}", "__module__", "sonetrix", "__doc__",
        "Utility class to access the log functionalities using static methods."));
    for (const Level &level : levels) {
        Ref value = checked(PyLong_FromUnsignedLong(level.value));
        checked(PyDict_SetItem(dictionary.get(), level.constant.get(), value.get()));
    }
    Ref logClass =
        checked(PyObject_CallFunction, reinterpret_cast<PyObject *>(&PyType_Type), "s()O", "log", dictionary.get());
    addFunctions(logClass.get(), functions);
    bindInModule(module, "log", logClass);
    originalClass.remember(asType(logClass));
    hold(Held::logClass, std::move(logClass));
}

} // namespace sonetrix

// engine: life cycle, driver, clock.

#include "engine.h"
#include "list_key_value.h"
#include "monitor.h"

#include <array>
#include <cstring>

namespace sonetrix {

namespace {

Ref initEngine() {
    // Twice, as engines expect it: the first call may be what creates the engine.
    unlocked(sonetrix_engineGet);
    if (engineHandle() == nullptr) {
        sonetrix_engine_t *engine = unlocked(sonetrix_engineGet);
        if (engine == nullptr) {
            raise(PyExc_MemoryError);
        }
        setEngineHandle(engine);
    }
    return none();
}

Ref exitEngine() {
    ask(sonetrix_engine_RequestStop);
    return none();
}

Ref param() {
    sonetrix_cListKeyValue_t *parameters = ask(sonetrix_engine_getStartParameter);
    // The engine keeps its list: the script gets a copy.
    return parameters == nullptr ? ListKeyValue::newEmpty() : borrowedDup(parameters);
}

Ref isRunning() { return boolean(ask(sonetrix_engine_IsRunning) != 0); }

Ref waitUntilEnd() {
    whileRunning([] {});
    return none();
}

Ref getXrunCounter() { return checked(PyLong_FromLong(ask(sonetrix_engine_DriverGetXRun))); }

Ref getFrameRate() { return checked(PyLong_FromUnsignedLong(ask(sonetrix_engine_DriverGetFrameRate))); }

Ref cpuInfo() {
    sonetrix_engine_t *engine = requireEngine();
    std::array<float, 6> figures{};
    unlocked([&] {
        auto &[cpuUsageMean, cpuUsagePeakMean, timeUsage, timeUsagePeak, maxCpuTime, maxCpuTimeErr] = figures;
        sonetrix_engine_DriverGetCpuUsage(
            engine, &cpuUsageMean, &cpuUsagePeakMean, &timeUsage, &timeUsagePeak, &maxCpuTime, &maxCpuTimeErr);
    });
    Ref tuple = checked(PyTuple_New(static_cast<Py_ssize_t>(figures.size())));
    Py_ssize_t index = 0;
    for (const float figure : figures) {
        PyTuple_SET_ITEM(tuple.get(), index++, checked(PyFloat_FromDouble(static_cast<double>(figure))).release());
    }
    return tuple;
}

Ref hasDriver() { return boolean(ask(sonetrix_engine_DriverIsLoaded) != 0); }

Ref getDriverName() {
    sonetrix_engine_t *engine = requireEngine();
    char *name = nullptr;
    const std::int32_t status = unlocked(sonetrix_engine_DriverGetName, engine, &name);
    if (status != 0 || name == nullptr) {
        raisePlain("could not get driver name"); // what a failed call leaves behind is not the caller's
    }
    const std::unique_ptr<char, Free> owned(name);
    return checked(PyUnicode_DecodeASCII(name, static_cast<Py_ssize_t>(std::strlen(name)), "strict"));
}

Ref seconds(const timespec &time) {
    return checked(PyFloat_FromDouble(static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9));
}

// The two clock reads keep the lock: they never block and take less time than giving it up.
Ref getLastAudioTimeStamp() {
    timespec time{};
    sonetrix_clock_sample_timestamp(requireEngine(), &time);
    return seconds(time);
}

Ref now() {
    timespec time{};
    sonetrix_clock_gettime(&time);
    return seconds(time);
}

constexpr Method functions[] = {
    {"initEngine", "()",
        "Initialize the engine handle for the current session.\n\n"
        "This method is called automatically at start-up, so there is no need to call it. MemoryError when the\n"
        "process has no engine.",
        function<initEngine>},
    {"exit", "()",
        "Schedules the exit for the current SoneTrix instance.\n\n"
        "Returns at once and sets no exit code; see the function exit for one that does.",
        function<exitEngine>},
    {"param", "() -> listKeyValue",
        "get start param.\n\n"
        "Returns: a listKeyValue with a copy of the parameters that the engine was started with",
        function<param>},
    {"isRunning", "() -> bool",
        "Checks if the current engine instance is running.\n\n"
        "Returns: True if the instance is running",
        function<isRunning>},
    {"getXrunCounter", "() -> int",
        "Get number of Xrun\n\n"
        "Returns: how many blocks the driver could not process in time since it was started",
        function<getXrunCounter>},
    {"waitUntilEnd", "()",
        "Pause until the engine instance stops running.\n\n"
        "Asks ten times a second; other Python threads and callbacks run meanwhile.",
        function<waitUntilEnd>},
    {"getFrameRate", "() -> int",
        "return driver framerate\n\n"
        "Returns: frames per second",
        function<getFrameRate>},
    {"cpuInfo", "() -> tuple[float, float, float, float, float, float]",
        "Returns: a tuple with the CPU usage parameters, in the form of\n"
        "(cpuUsageMean, cpuUsagePeakMean, timeUsage, timeUsagePeak, maxCpuTime, maxCpuTimeErr)\n\n"
        "Usages are in percent of the time that a block may take, times in seconds; the driver measures them.",
        function<cpuInfo>},
    {"hasDriver", "() -> bool",
        "Checks if the current engine instance has loaded a valid driver.\n\n"
        "Returns: True if a driver is loaded",
        function<hasDriver>},
    {"getDriverName", "() -> str",
        "Returns the current driver name.\n\n"
        "Exception \"could not get driver name\" when there is none.",
        function<getDriverName>},
    {"getLastAudioTimeStamp", "() -> float",
        "return the last audio timestamp as float.\n\n"
        "Returns: posix timestamp as float in seconds",
        function<getLastAudioTimeStamp>},
    {"now", "() -> float",
        "Returns the engine clock's current time.\n\n"
        "Returns: posix timestamp as float in seconds",
        function<now>},
};

} // namespace

const std::span<const Method> engineStatusFunctions = functions;

} // namespace sonetrix

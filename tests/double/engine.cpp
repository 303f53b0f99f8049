// The engine functions of the recording engine: each notes its call and does what the test has scripted.

#include "callbacks.h"
#include "lists.h"
#include "recorder.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>

using namespace sonetrix::testing;

namespace {

std::atomic<bool> stopRequested = false;
std::atomic<int32_t> exitCode = -1;
std::atomic<sonetrix_log_level_t> logLevel = SONETRIX_LOG_TRACE;
std::atomic<sonetrix_log_level_t> journalLevel = SONETRIX_LOG_TRACE;
std::atomic<void (*)()> stopHook = nullptr;
std::vector<const sonetrix_module_t *> modules;

// A copy of the list that the test has given for the function, else an empty one.
template <typename Handle> Handle *scriptedList(const Call &call) {
    if (call.null()) {
        return nullptr;
    }
    return newList<Handle>(static_cast<const List *>(call.script().list));
}

double numberAt(const Script &script, size_t index) {
    return index < script.numbers.size() ? script.numbers[index] : 0;
}

// What a failure leaves behind is not the caller's to free.
int32_t giveText(const Call &call, char **text, char *fallback) {
    const Script script = call.script();
    const int32_t status = call.status();
    *text = status == 0 ? strdup(script.hasText ? script.text.c_str() : fallback) : fallback;
    return status;
}

int32_t giveTime(const Call &call, timespec *time) {
    const Script script = call.script();
    *time = {.tv_sec = static_cast<time_t>(numberAt(script, 0)), .tv_nsec = static_cast<long>(numberAt(script, 1))};
    return call.status();
}

// Everything counts as written unless the test gives a list of what was.
int32_t write(const Call &call, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
    const auto *given = static_cast<const List *>(call.script().list);
    const List *source = given ? given : parameters;
    if (alive(source) && alive(written)) {
        written->entries.insert(written->entries.end(), source->entries.begin(), source->entries.end());
    }
    return call.status();
}

sonetrix_cListKeyValue_t *readMeters(sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type) {
    return scriptedList<sonetrix_cListKeyValue_t>(Call("readMeters", engine, module, type));
}

} // namespace

extern "C" {

sonetrix_engine_t *sonetrix_engineGet() { return Call(__func__).null() ? nullptr : engineHandle(); }
void sonetrix_engine_RequestStop(sonetrix_engine_t *engine) {
    const Call call(__func__, engine);
    if (!stopRequested.exchange(true) && stopHook) {
        stopHook.load()();
    }
}
void sonetrix_engine_SetExitCode(sonetrix_engine_t *engine, int32_t code) {
    const Call call(__func__, engine, code);
    exitCode = code;
}
int32_t sonetrix_engine_IsRunning(sonetrix_engine_t *engine) { return Call(__func__, engine).status(!stopRequested); }
sonetrix_cListKeyValue_t *sonetrix_engine_getStartParameter(sonetrix_engine_t *engine) {
    const Call call(__func__, engine);
    return call.null() ? nullptr
                       : static_cast<sonetrix_cListKeyValue_t *>(
                             const_cast<List *>(static_cast<const List *>(call.script().list)));
}
int32_t sonetrix_engine_DriverGetXRun(sonetrix_engine_t *engine) { return Call(__func__, engine).status(); }
uint32_t sonetrix_engine_DriverGetFrameRate(sonetrix_engine_t *engine) {
    return static_cast<uint32_t>(Call(__func__, engine).result(48000));
}
int32_t sonetrix_engine_DriverGetCpuUsage(
    sonetrix_engine_t *engine, float *a, float *b, float *c, float *d, float *e, float *f) {
    const Call call(__func__, engine);
    const Script script = call.script();
    size_t index = 0;
    for (float *out : {a, b, c, d, e, f}) {
        *out = static_cast<float>(numberAt(script, index++));
    }
    return call.status();
}
int32_t sonetrix_engine_DriverIsLoaded(const void *reference) {
    return Call(__func__, reference).status(reference ? 1 : 0);
}
int32_t sonetrix_engine_DriverGetName(sonetrix_engine_t *engine, char **name) {
    static char driver[] = "double";
    return giveText(Call(__func__, engine), name, driver);
}
int32_t sonetrix_clock_sample_timestamp(sonetrix_engine_t *engine, timespec *time) {
    return giveTime(Call(__func__, engine), time);
}
int32_t sonetrix_clock_gettime(timespec *time) { return giveTime(Call(__func__), time); }

sonetrix_cListKeyValue_t *sonetrix_engine_GetParams(sonetrix_engine_t *engine, const sonetrix_cListValue_t *keys) {
    return scriptedList<sonetrix_cListKeyValue_t>(Call(__func__, engine, keys));
}
int32_t sonetrix_engine_SetParamsFull(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
    return write(Call(__func__, engine, parameters), parameters, written);
}
int32_t sonetrix_engine_SetParamsFullCli(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
    return write(Call(__func__, engine, parameters), parameters, written);
}

sonetrix_cListValue_t *sonetrix_engine_GetModulesList(sonetrix_engine_t *engine) {
    return scriptedList<sonetrix_cListValue_t>(Call(__func__, engine));
}
sonetrix_cListValue_t *sonetrix_engine_GetAllPortNames(sonetrix_engine_t *engine) {
    return scriptedList<sonetrix_cListValue_t>(Call(__func__, engine));
}
sonetrix_cListValue_t *sonetrix_engine_GetLinkPort(sonetrix_engine_t *engine, const char *port) {
    return scriptedList<sonetrix_cListValue_t>(Call(__func__, engine, port));
}
int32_t sonetrix_engine_ModuleNew(
    sonetrix_engine_t *engine, const char *name, const char *identifier, const sonetrix_cListKeyValue_t *info) {
    return Call(__func__, engine, name, identifier, info).status();
}
int32_t sonetrix_engine_ModuleDelete(sonetrix_engine_t *engine, const char *name) {
    return Call(__func__, engine, name).status();
}
int32_t sonetrix_engine_LinkPort(sonetrix_engine_t *engine, const char *p1, const char *p2) {
    return Call(__func__, engine, p1, p2).status();
}
int32_t sonetrix_engine_ForEachModuleSafe(sonetrix_engine_t *engine, sonetrix_moduleCallback_t callback, void *user) {
    const Call call(__func__, engine);
    const Script script = call.script();
    for (const sonetrix_module_t *module : modules) {
        if (callback(module, script.user ? script.user : user) != 0 && script.stopsOnError) {
            break;
        }
    }
    return call.status();
}
int32_t sonetrix_engine_ModuleUsage(
    sonetrix_engine_t *engine, const char *name, float *absolute, float *relative, uint32_t *processId) {
    const Call call(__func__, engine, name);
    const Script script = call.script();
    *absolute = static_cast<float>(numberAt(script, 0));
    *relative = static_cast<float>(numberAt(script, 1));
    *processId = static_cast<uint32_t>(numberAt(script, 2));
    return call.status();
}
int32_t sonetrix_engine_ModuleGetStartParameter(sonetrix_engine_t *engine,
    const sonetrix_module_t *module,
    char **library,
    sonetrix_cListKeyValue_t **configuration) {
    const Call call(__func__, engine, module->name);
    static char libraryName[] = "library.so";
    const int32_t status = giveText(call, library, libraryName);
    *configuration = status == 0 ? scriptedList<sonetrix_cListKeyValue_t>(call) : nullptr;
    return status;
}

int32_t sonetrix_engine_addDebugMeter(
    sonetrix_engine_t *engine, sonetrix_module_meters_type type, const char *key, const sonetrix_value_t *value) {
    return Call(__func__, engine, type, key, value).status();
}
int32_t sonetrix_engine_delDebugMeter(sonetrix_engine_t *engine, sonetrix_module_meters_type type, const char *key) {
    return Call(__func__, engine, type, key).status();
}
sonetrix_cListKeyValue_t *sonetrix_engine_GetLastMeters(
    sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type) {
    return scriptedList<sonetrix_cListKeyValue_t>(Call(__func__, engine, module, type));
}
int32_t sonetrix_engine_registerMeterManager(sonetrix_engine_t *engine, sonetrix_readMeters_t *read) {
    const Call call(__func__, engine);
    const int32_t status = call.status();
    *read = status == 0 && !call.null() ? readMeters : nullptr;
    return status;
}
int32_t sonetrix_engine_unregisterMeterManager(sonetrix_engine_t *engine) { return Call(__func__, engine).status(); }
sonetrix_cListKeyValue_t *sonetrix_engine_meterInfoList(sonetrix_engine_t *engine, sonetrix_module_meters_type type) {
    return scriptedList<sonetrix_cListKeyValue_t>(Call(__func__, engine, type));
}

void *sonetrix_engine_notify_changes_addCallback(
    sonetrix_engine_t *engine, sonetrix_listCallback_t callback, void *user) {
    return Call(__func__, engine).null() ? nullptr : Callbacks::instance().add(CallbackKind::Changes, callback, user);
}
void sonetrix_engine_notify_changes_rmCallback(sonetrix_engine_t *engine, void *handle) {
    const Call call(__func__, engine, handle);
    Callbacks::instance().remove(handle);
}
void *sonetrix_engine_addCallbackMeterManager(
    sonetrix_engine_t *engine, sonetrix_module_meters_type type, sonetrix_listCallback_t callback, void *user) {
    const auto kind = type == SONETRIX_METERS_SLOW ? CallbackKind::SlowMeters : CallbackKind::FastMeters;
    return Call(__func__, engine, type).null() ? nullptr : Callbacks::instance().add(kind, callback, user);
}
void sonetrix_engine_rmCallbackMeterManager(sonetrix_engine_t *engine, void *handle) {
    const Call call(__func__, engine, handle);
    Callbacks::instance().remove(handle);
}
void *sonetrix_engine_addTimer(
    sonetrix_engine_t *engine, int32_t milliseconds, sonetrix_timerCallback_t callback, void *user) {
    return Call(__func__, engine, milliseconds).null() ? nullptr
                                                       : Callbacks::instance().add(CallbackKind::Timer, callback, user);
}
void sonetrix_engine_delTimer(sonetrix_engine_t *engine, void *handle) {
    const Call call(__func__, engine, handle);
    Callbacks::instance().remove(handle);
}

// The message is formatted, so that a test sees the line as the log would show it; file and line are left out.
void sonetrix_log(sonetrix_log_level_t level, const char *, int32_t, int32_t flag, const char *format, ...) {
    char message[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    const Call call(__func__, level, flag, static_cast<const char *>(message));
}
void sonetrix_log_LogString(
    sonetrix_log_level_t level, const char *tag, int32_t line, int32_t flag, const char *message) {
    const Call call(__func__, level, tag, line, flag, message);
}
sonetrix_log_level_t sonetrix_log_GetLogLevel() {
    return static_cast<sonetrix_log_level_t>(Call(__func__).result(logLevel));
}
void sonetrix_log_SetLogLevel(sonetrix_log_level_t level) {
    const Call call(__func__, level);
    logLevel = level;
}
sonetrix_log_level_t sonetrix_log_GetLogLevelJournal() {
    return static_cast<sonetrix_log_level_t>(Call(__func__).result(journalLevel));
}
void sonetrix_log_SetLogLevelJournal(sonetrix_log_level_t level) {
    const Call call(__func__, level);
    journalLevel = level;
}
void sonetrix_log_time(int32_t on) { const Call call(__func__, on); }
void sonetrix_log_file_time(int32_t on) { const Call call(__func__, on); }
void sonetrix_log_filename(const char *path) { const Call call(__func__, path); }
void sonetrix_log_syslog(int32_t on) { const Call call(__func__, on); }
void sonetrix_log_journald(int32_t on) { const Call call(__func__, on); }

void *sonetrix_malloc(size_t size) {
    if (Call(__func__, size).null()) {
        return nullptr;
    }
    countBlocks(1);
    return std::malloc(size);
}
void sonetrix_free(void *memory) {
    const Call call(__func__, static_cast<const void *>(memory));
    countBlocks(memory ? -1 : 0);
    std::free(memory);
}
void sonetrix_memory_rt_inspect() { const Call call(__func__); }

// --------------------------------------------------------------------------------------------- control functions

void double_reset() {
    Recorder::instance().reset();
    stopRequested = false;
    exitCode = -1;
    logLevel = journalLevel = SONETRIX_LOG_TRACE;
    modules.clear();
}
void double_onStopRequest(void (*hook)()) { stopHook = hook; }
int32_t double_exitCode() { return exitCode; }

// The text stays valid until the same thread asks again.
const char *double_calls(int32_t clear) {
    thread_local std::deque<std::string> text;
    text.assign(1, Recorder::instance().takeCalls(clear != 0));
    return text.front().c_str();
}
void double_record(int32_t on) { Recorder::instance().setRecording(on != 0); }
int64_t double_counts(int32_t which) {
    const Counts now = counts();
    const int64_t all[] = {now.lists, now.values, now.blocks, now.misuses};
    return all[which];
}

void double_result(const char *name, int64_t value, int32_t lasting) {
    Recorder::instance().withScript(name, [&](Script &script) {
        if (lasting) {
            script.lastingResult = value;
        } else {
            script.results.push_back(value);
        }
    });
}
void double_null(const char *name, int32_t times) {
    Recorder::instance().withScript(name, [&](Script &script) { script.nulls = times; });
}
void double_delay(const char *name, int32_t milliseconds) {
    Recorder::instance().withScript(
        name, [&](Script &script) { script.delay = std::chrono::milliseconds(milliseconds); });
}
void double_text(const char *name, const char *text) {
    Recorder::instance().withScript(name, [&](Script &script) {
        script.text = text;
        script.hasText = true;
    });
}
void double_numbers(const char *name, const double *numbers, size_t count) {
    Recorder::instance().withScript(name, [&](Script &script) { script.numbers.assign(numbers, numbers + count); });
}
void double_user(const char *name, void *user) {
    Recorder::instance().withScript(name, [&](Script &script) { script.user = user; });
}
void double_givesLockUp(const char *name, int32_t does) {
    Recorder::instance().withScript(name, [&](Script &script) { script.givesLockUp = does != 0; });
}
void double_stopOnError(const char *name, int32_t stops) {
    Recorder::instance().withScript(name, [&](Script &script) { script.stopsOnError = stops != 0; });
}

// Lists made here belong to the test and are neither recorded nor counted.
void *double_listNew() { return newTestList(); }
void double_listAdd(void *list, const char *key, const sonetrix_value_t *value) {
    static_cast<List *>(list)->entries.push_back({key ? key : "", Value(*value)});
}
void double_list(const char *name, const void *list) {
    Recorder::instance().withScript(name, [&](Script &script) { script.list = list; });
}

// The records stay the test's and must outlive the iterations.
void double_modules(const sonetrix_module_t *const *records, size_t count) { modules.assign(records, records + count); }

int32_t double_registrations(int32_t kind) { return Callbacks::instance().count(static_cast<CallbackKind>(kind)); }
void double_fire(int32_t kind, const void *list, int32_t threads, int32_t times) {
    auto *mine = newList<sonetrix_cListKeyValue_t>(static_cast<const List *>(list));
    mine->engineKeeps = true;
    Callbacks::instance().fire(static_cast<CallbackKind>(kind), mine, threads, times);
    mine->engineKeeps = false;
    discardList(mine);
}

} // extern "C"

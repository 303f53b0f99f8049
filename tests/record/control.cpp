#include "control.h"

#include "engine.h"
#include "lists/lists.h"
#include "record.h"
#include "registrations.h"

#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <thread>

namespace sonetrix::record {

thread_local LastReading lastReading{};
std::optional<std::vector<const sonetrix_module_t *>> scriptedModules;
std::atomic<void (*)()> stopRequestHook = nullptr;

namespace {

// An array that has elements, but none anywhere: the engine would not take it in.
bool isOdd(const sonetrix_value_t &value) {
    return value.type >= SONETRIX_VALUE_AUINT32 && value.type <= SONETRIX_VALUE_AFLOAT && !value.as.array &&
           value.count;
}
sonetrix_value_t storable(sonetrix_value_t value) {
    value.count = isOdd(value) ? 0 : value.count;
    return value;
}

void add(sonetrix_cListKeyValue_t &list, const char *key, const sonetrix_value_t &value) {
    list.add(key, storable(value));
    if (isOdd(value))
        const_cast<sonetrix_keyValue_t &>(list[list.size() - 1]).value = value;
}
void add(sonetrix_cListValue_t &list, const char * /*key*/, const sonetrix_value_t &value) {
    list.addRecord(storable(value));
    if (isOdd(value))
        const_cast<sonetrix_value_t &>(list[list.size() - 1]) = value;
}

template <typename List> void addAll(List &target, const sonetrix_cListKeyValue_t *source) {
    if (source) {
        for (const sonetrix_keyValue_t &entry : *source)
            add(target, entry.key, entry.value);
    }
}

template <typename List> List *copyOf(const sonetrix_cListKeyValue_t *source) {
    auto list = std::make_unique<List>();
    addAll(*list, source);
    return list.release();
}

} // namespace

template <> sonetrix_cListKeyValue_t *newList(const sonetrix_cListKeyValue_t *source) {
    return copyOf<sonetrix_cListKeyValue_t>(source);
}

template <> sonetrix_cListValue_t *newList(const sonetrix_cListKeyValue_t *source) {
    return copyOf<sonetrix_cListValue_t>(source);
}

void appendAll(sonetrix_cListKeyValue_t *target, const sonetrix_cListKeyValue_t *source) { addAll(*target, source); }

EngineList::EngineList(const sonetrix_cListKeyValue_t *source) : list_(newList<sonetrix_cListKeyValue_t>(source)) {
    Recorder::instance().began(list_, true);
}

EngineList::~EngineList() {
    Recorder::instance().forget(list_);
    delete list_;
}

std::string literal(const void *pointer) {
    if (!pointer)
        return "None";
    return pointer == dev::Engine::current() ? "'engine'" : std::to_string(reinterpret_cast<uintptr_t>(pointer));
}

std::string literal(const sonetrix_value_t *value) {
    const auto typed = [](const char *name, const std::string &text) {
        return "('" + std::string(name) + "'," + text + ")";
    };
    switch (value->type) {
    case SONETRIX_VALUE_UINT32:
        return typed("uint32", literal(value->as.uint32));
    case SONETRIX_VALUE_INT32:
        return typed("int32", literal(value->as.int32));
    case SONETRIX_VALUE_FLOAT:
        return typed("float", literal(value->as.float32));
    case SONETRIX_VALUE_STRING:
        return typed("string", literal(value->as.string));
    case SONETRIX_VALUE_AUINT32:
        return typed("auint32", arrayLiteral(static_cast<const uint32_t *>(value->as.array), value->count));
    case SONETRIX_VALUE_AINT32:
        return typed("aint32", arrayLiteral(static_cast<const int32_t *>(value->as.array), value->count));
    case SONETRIX_VALUE_AFLOAT:
        return typed("afloat", arrayLiteral(static_cast<const float *>(value->as.array), value->count));
    case SONETRIX_VALUE_DOUBLE:
        return typed("double", literal(value->as.float64));
    default:
        return typed("unknown", literal(value->type));
    }
}

std::string literal(const sonetrix_cListValue_t *list) {
    if (!list)
        return "None";
    std::string text = "[";
    for (const sonetrix_value_t &value : *list)
        text += literal(&value) + ",";
    return text + "]";
}

std::string literal(const sonetrix_cListKeyValue_t *list) {
    if (!list)
        return "None";
    std::string text = "[";
    for (const sonetrix_keyValue_t &entry : *list)
        text += "(" + literal(entry.key) + "," + literal(&entry.value) + "),";
    return text + "]";
}

namespace {

template <typename Change> void script(const char *name, Change change) {
    Recorder::instance().withScript(name, change);
}

// What would be written to the console, or to the system's log, is on record.
void keepLogQuiet() {
    for (const char *name : {"sonetrix_log", "sonetrix_log_LogString", "sonetrix_log_time", "sonetrix_log_file_time",
             "sonetrix_log_filename", "sonetrix_log_syslog", "sonetrix_log_journald", "sonetrix_memory_rt_inspect"})
        script(name, [](Script &one) { one.quiet = true; });
}

int32_t readAll(const sonetrix_cListKeyValue_t &list, LastReading reading, void *user) {
    int32_t failures = 0;
    for (const sonetrix_keyValue_t &entry : list)
        failures += (reading.keyValue ? reading.keyValue(&entry, user) : reading.value(&entry.value, user)) != 0;
    return failures;
}

} // namespace

} // namespace sonetrix::record

using namespace sonetrix::record;

// Takes any number of arguments; the message is noted as the log would show it.
void sonetrix_log(sonetrix_log_level_t level, const char *file, int32_t line, int32_t flag, const char *format, ...) {
    char message[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    bool quiet = false;
    if (active) {
        const Call call("sonetrix_log",
            literal(level) + "," + literal(file) + "," + literal(line) + "," + literal(flag) + "," + literal(message));
        quiet = call.script().quiet;
    }
    if (!quiet)
        reinterpret_cast<decltype(&sonetrix_log)>(dlsym(RTLD_NEXT, "sonetrix_log"))(
            level, file, line, flag, "%s", message);
}

// An engine that is never started: nothing happens in it but what the test asks for.
void record_begin() {
    std::string error;
    static auto *const engine =
        sonetrix::dev::Engine::create({.offlineSeconds = 1}, sonetrix_cListKeyValue(), error).release();
    if (!engine) {
        std::fprintf(stderr, "record: %s\n", error.c_str());
        std::abort();
    }
    active = true;
    record_reset();
}

void record_reset() {
    Recorder::instance().reset();
    scriptedModules.emplace();
    record_result("sonetrix_engine_IsRunning", 1, 1);
    keepLogQuiet();
}

// The text stays valid until the same thread asks again.
const char *record_calls(int32_t clear) {
    thread_local std::string text;
    text = Recorder::instance().takeCalls(clear != 0);
    return text.c_str();
}
const char *record_violations() {
    thread_local std::string text;
    text = Recorder::instance().takeViolations();
    return text.c_str();
}
void record_noting(int32_t on) { Recorder::instance().setNoting(on != 0); }
int64_t record_count(int32_t what) { return Recorder::instance().counted(static_cast<Count>(what)); }
int32_t record_exitCode() { return sonetrix::dev::Engine::current()->exitCode().value_or(-1); }
void record_onStopRequest(void (*hook)()) { stopRequestHook = hook; }

void record_result(const char *name, int64_t value, int32_t lasting) {
    script(name, [&](Script &one) {
        if (lasting) {
            one.lastingResult = value;
        } else {
            one.results.push_back(value);
        }
    });
}
void record_null(const char *name, int32_t times) {
    script(name, [&](Script &one) { one.nulls = times; });
}
void record_delay(const char *name, int32_t milliseconds) {
    script(name, [&](Script &one) { one.delay = std::chrono::milliseconds(milliseconds); });
}
void record_text(const char *name, const char *text) {
    script(name, [&](Script &one) { one.text = text; });
}
void record_numbers(const char *name, const double *numbers, size_t count) {
    script(name, [&](Script &one) { one.numbers.emplace(numbers, numbers + count); });
}
void record_user(const char *name, void *user) {
    script(name, [&](Script &one) { one.user = user; });
}
void record_givesLockUp(const char *name, int32_t does) {
    script(name, [&](Script &one) { one.givesLockUp = does != 0; });
}
void record_stopOnError(const char *name, int32_t stops) {
    script(name, [&](Script &one) { one.stopsOnError = stops != 0; });
}
void record_callsInside(const char *name, int32_t times) {
    script(name, [&](Script &one) { one.callsInside = times; });
}
void record_modules(const sonetrix_module_t *const *records, size_t count) {
    scriptedModules.emplace(records, records + count);
}

void *record_listNew() { return new sonetrix_cListKeyValue; }
void record_listAdd(void *list, const char *key, const sonetrix_value_t *value) {
    add(*static_cast<sonetrix_cListKeyValue_t *>(list), key ? key : "", *value);
}
void record_listExtend(void *list, const sonetrix_value_t *value) {
    add(*static_cast<sonetrix_cListValue_t *>(list), nullptr, *value);
}
void record_list(const char *name, const void *list) {
    script(name, [&](Script &one) { one.list = static_cast<const sonetrix_cListKeyValue_t *>(list); });
}
int32_t record_readAgain(const void *list, void *user, int32_t onNativeThread) {
    int32_t failures = 0;
    const auto work = [&, reading = lastReading] {
        failures = readAll(*static_cast<const sonetrix_cListKeyValue_t *>(list), reading, user);
    };
    onNativeThread ? std::thread(work).join() : work();
    return failures;
}

int32_t record_registrations(int32_t kind) { return countRegistrations(static_cast<Kind>(kind)); }
void record_fire(int32_t kind, const void *list, int32_t threads, int32_t times) {
    const EngineList shown(static_cast<const sonetrix_cListKeyValue_t *>(list));
    const auto work = [&] { callAll(static_cast<Kind>(kind), shown.get(), times); };
    if (threads == 0) {
        const ComesInHolding holding(lockHeld() == 1);
        work();
        return;
    }
    std::vector<std::jthread> workers;
    workers.reserve(static_cast<size_t>(threads));
    for (int32_t i = 0; i < threads; ++i)
        workers.emplace_back(work);
}
void record_fireOn(int32_t thread, int32_t kind, const void *list, int32_t times, int32_t wait) {
    auto shown = std::make_shared<EngineList>(static_cast<const sonetrix_cListKeyValue_t *>(list));
    onEngineThread(
        thread, [=] { callAll(static_cast<Kind>(kind), shown->get(), times); }, wait != 0);
}
void record_join(int32_t thread) { joinEngineThread(thread); }

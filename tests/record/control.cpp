#include "control.h"

#include "engine.h"
#include "lists/lists.h"
#include "record.h"
#include "registrations.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>

namespace sonetrix::record {

thread_local std::tuple<sonetrix_valueCallback_t, sonetrix_keyValueCallback_t> lastReading{};
std::optional<std::vector<const sonetrix_module_t *>> scriptedModules;
std::atomic<void (*)()> stopRequestHook = nullptr;
std::atomic<int64_t> blockCount = 0;

template <> sonetrix_cListKeyValue_t *newList(const sonetrix_cListKeyValue_t *source) {
    return source ? new sonetrix_cListKeyValue(*source) : new sonetrix_cListKeyValue;
}
template <> sonetrix_cListValue_t *newList(const sonetrix_cListKeyValue_t *source) {
    auto list = std::make_unique<sonetrix_cListValue>();
    if (source) {
        for (const sonetrix_keyValue_t &entry : *source)
            list->addRecord(entry.value);
    }
    return list.release();
}
void deleteList(sonetrix_cListKeyValue_t *list) { delete list; }
void appendAll(sonetrix_cListKeyValue_t *target, const sonetrix_cListKeyValue_t *source) {
    sonetrix_cListKeyValue copy = source ? *source : sonetrix_cListKeyValue();
    target->merge(copy);
}

std::string literal(const void *pointer) {
    if (!pointer)
        return "None";
    return pointer == dev::Engine::current() ? "'engine'" : std::to_string(reinterpret_cast<uintptr_t>(pointer));
}

std::string literal(const sonetrix_value_t *value) {
    const auto array = [&](auto *elements) { return arrayLiteral(elements, value->count); };
    const auto content = [&] {
        switch (value->type) {
        case SONETRIX_VALUE_UINT32:
            return "'uint32'," + literal(value->as.uint32);
        case SONETRIX_VALUE_INT32:
            return "'int32'," + literal(value->as.int32);
        case SONETRIX_VALUE_FLOAT:
            return "'float'," + literal(value->as.float32);
        case SONETRIX_VALUE_STRING:
            return "'string'," + literal(value->as.string);
        case SONETRIX_VALUE_AUINT32:
            return "'auint32'," + array(static_cast<const uint32_t *>(value->as.array));
        case SONETRIX_VALUE_AINT32:
            return "'aint32'," + array(static_cast<const int32_t *>(value->as.array));
        case SONETRIX_VALUE_AFLOAT:
            return "'afloat'," + array(static_cast<const float *>(value->as.array));
        case SONETRIX_VALUE_DOUBLE:
            return "'double'," + literal(value->as.float64);
        default:
            return "'unknown'," + literal(value->type);
        }
    };
    return "(" + content() + ")";
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

} // namespace sonetrix::record

using namespace sonetrix::record;

// Takes any number of arguments; the message is noted as the log would show it.
void sonetrix_log(sonetrix_log_level_t level, const char *file, int32_t line, int32_t flag, const char *format, ...) {
    char message[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    if (active) {
        const Call call("sonetrix_log",
            literal(level) + "," + literal(file) + "," + literal(line) + "," + literal(flag) + "," + literal(message));
        if (call.setting(Quiet))
            return;
    }
    reinterpret_cast<decltype(&sonetrix_log)>(dlsym(RTLD_NEXT, "sonetrix_log"))(level, file, line, flag, "%s", message);
}

// An engine that is never started: nothing happens in it but what the test asks for.
void record_begin() {
    static const auto *const engine =
        sonetrix::dev::Engine::create({.offlineSeconds = 1}, sonetrix_cListKeyValue()).release();
    static_cast<void>(engine);
    active = true;
    record_reset();
}

// What would be written to the console, or to the system's log, is on record.
void record_reset() {
    Recorder::instance().reset();
    scriptedModules.emplace();
    record_set("sonetrix_engine_IsRunning", Result, 1);
    for (const char *name : {"sonetrix_log", "sonetrix_log_LogString", "sonetrix_log_time", "sonetrix_log_file_time",
             "sonetrix_log_filename", "sonetrix_log_syslog", "sonetrix_log_journald", "sonetrix_memory_rt_inspect"})
        record_set(name, Quiet, 1);
}

void record_noting(int32_t on) { Recorder::instance().noting = on != 0; }
// The text stays valid until the same thread asks again; also the next.
const char *record_calls(int32_t clear) {
    thread_local std::string text;
    text = Recorder::instance().takeCalls(clear != 0);
    return text.c_str(); // NOLINT(clang-analyzer-cplusplus.InnerPointer): as said above
}
const char *record_violations() {
    thread_local std::string text;
    text = Recorder::instance().takeViolations();
    return text.c_str(); // NOLINT(clang-analyzer-cplusplus.InnerPointer)
}
int64_t record_lists() { return Recorder::instance().listCount(); }
int64_t record_blocks() { return blockCount; }
int32_t record_exitCode() { return sonetrix::dev::Engine::current()->exitCode().value_or(-1); }
void record_onStopRequest(void (*hook)()) { stopRequestHook = hook; }

void record_set(const char *name, int32_t setting, int64_t value) {
    Recorder::instance().withScript(name, [&](Script &script) {
        script.given = script.given || setting == Result || setting == List;
        if (setting == ResultOnce) {
            script.results.push_back(value);
        } else {
            script.settings.at(static_cast<size_t>(setting)) = value;
        }
    });
}
void record_text(const char *name, const char *text) {
    Recorder::instance().withScript(name, [&](Script &script) {
        script.text = text;
        script.given = true;
    });
}
void record_numbers(const char *name, const double *numbers, size_t count) {
    Recorder::instance().withScript(name, [&](Script &script) {
        script.numbers.assign(numbers, numbers + count);
        script.given = true;
    });
}
void record_modules(const sonetrix_module_t *const *records, size_t count) {
    scriptedModules.emplace(records, records + count);
}

// They stay to the end, as nobody says when they are done with.
void *record_listNew() {
    static std::mutex mutex;
    static auto &lists = *new std::deque<sonetrix_cListKeyValue>;
    const std::lock_guard lock(mutex);
    return &lists.emplace_back();
}
void record_listAdd(void *list, const char *key, const sonetrix_value_t *value) {
    if (key) {
        static_cast<sonetrix_cListKeyValue_t *>(list)->add(key, *value);
    } else {
        static_cast<sonetrix_cListValue_t *>(list)->addRecord(*value);
    }
}
int32_t record_readAgain(const void *list, void *user, int32_t onNativeThread) {
    int32_t failures = 0;
    const auto work = [&, reading = lastReading] {
        const auto [plain, keyed] = reading;
        for (const sonetrix_keyValue_t &entry : *static_cast<const sonetrix_cListKeyValue_t *>(list))
            failures += (keyed ? keyed(&entry, user) : plain(&entry.value, user)) != 0;
    };
    onNativeThread ? std::thread(work).join() : work();
    return failures;
}

int32_t record_registrations(int32_t kind) { return countRegistrations(static_cast<Kind>(kind)); }
void record_fire(int32_t kind, const void *list, int32_t threads, int32_t times) {
    const auto work = [=] {
        callAll(static_cast<Kind>(kind), static_cast<const sonetrix_cListKeyValue_t *>(list), times);
    };
    if (threads == 0) {
        comesInHolding = lockHeld() == 1;
        work();
        comesInHolding = false;
        return;
    }
    std::vector<std::jthread> workers;
    workers.reserve(static_cast<size_t>(threads));
    for (int32_t i = 0; i < threads; ++i)
        workers.emplace_back(work);
}
void record_fireOn(int32_t thread, int32_t kind, const void *list, int32_t times, int32_t wait) {
    beginEngineThread(
        thread, [=] { record_fire(kind, list, 0, times); }, wait != 0);
}
void record_join(int32_t thread) { joinEngineThread(thread); }

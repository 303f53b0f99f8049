#include "record.h"

#include "engine.h"
#include "lists/lists.h"

#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>

namespace sonetrix::record {

std::atomic<int64_t> lists = 0;

std::string literal(const char *text) {
    if (!text)
        return "None";
    std::string quoted = "b'";
    for (; *text; ++text) {
        char escaped[5];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(*text));
        quoted += escaped;
    }
    return quoted + "'";
}

std::string literal(const void *pointer) {
    if (!pointer)
        return "None";
    return pointer == dev::Engine::current() ? "'engine'" : std::to_string(reinterpret_cast<uintptr_t>(pointer));
}

int64_t size(const sonetrix_cListValue_t *list) { return list ? std::distance(list->begin(), list->end()) : 0; }
int64_t size(const sonetrix_cListKeyValue_t *list) { return list ? std::distance(list->begin(), list->end()) : 0; }

namespace {

struct State {
    std::mutex mutex;
    std::map<std::string, Hook> hooks;
    std::string calls, violations;
};
State &state = *new State; // calls come until the very end of the process

const char *listed(std::string &entries, bool clear) {
    thread_local std::string text;
    const std::lock_guard lock(state.mutex);
    text = "[" + entries + "]";
    if (clear)
        entries.clear();
    return text.c_str(); // NOLINT(clang-analyzer-cplusplus.InnerPointer): until the same thread asks again
}

void violate(const std::string &what) {
    const std::lock_guard lock(state.mutex);
    state.violations += "'" + what + "',";
}

// By the calling thread: 1 or 0, and -1 where no interpreter is running.
int lockHeld() {
    auto *const initialized = found<int()>("Py_IsInitialized");
    return initialized && initialized() ? found<int()>("PyGILState_Check")() : -1;
}

void noteCall(const std::string &name, Lock rule, const std::string &arguments) {
    const int held = lockHeld();
    if (rule != Lock::Either && held >= 0 && held != static_cast<int>(rule))
        violate(name + " is called with the interpreter lock " + (held ? "held" : "released"));
    const std::lock_guard lock(state.mutex);
    state.calls += "('" + name + "',(" + arguments + ")," + literal(held) + "),\n";
}

// A hook may be Python code, and the call be made while a Python error is on its way.
bool ask(Hook hook, const int64_t *arguments, int64_t *result) {
    const bool held = lockHeld() == 1;
    void *error[3]; // type, value, traceback
    if (held)
        found<void(void **, void **, void **)>("PyErr_Fetch")(&error[0], &error[1], &error[2]);
    const bool done = hook(arguments, result);
    if (held)
        found<void(void *, void *, void *)>("PyErr_Restore")(error[0], error[1], error[2]);
    return done;
}

} // namespace

int64_t recorded(const Call &call) {
    noteCall(call.name, call.rule, call.note);
    std::unique_lock lock(state.mutex);
    const Hook hook = state.hooks[call.name];
    lock.unlock();
    if (!hook)
        return call.answer();
    int64_t result = 0;
    const int64_t before = call.size();
    const bool done = ask(hook, call.arguments, &result);
    if (call.size() != before)
        violate(std::string(call.name) + " reads a list that is changed meanwhile");
    return done ? result : call.answer();
}

} // namespace sonetrix::record

using namespace sonetrix::record;

const char *record_calls(int32_t clear) { return listed(state.calls, clear != 0); }
const char *record_violations() { return listed(state.violations, true); }
int64_t record_lists() { return lists; }

void record_hook(const char *name, Hook hook) {
    const std::lock_guard lock(state.mutex);
    state.hooks[name] = hook;
}

void record_reset() {
    const std::lock_guard lock(state.mutex);
    state.hooks.clear();
    state.calls.clear();
}

// Takes any number of arguments; the message is noted as the log would show it.
void sonetrix_log(sonetrix_log_level_t level, const char *file, int32_t line, int32_t flag, const char *format, ...) {
    char message[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    noteCall("sonetrix_log", Lock::Either,
        literal(level) + "," + literal(file) + "," + literal(line) + "," + literal(flag) + "," + literal(message));
}

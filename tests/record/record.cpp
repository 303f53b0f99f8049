#include "record.h"

#include "engine.h"
#include "lists/lists.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>
#include <unistd.h>
#include <utility>
#include <vector>

namespace sonetrix::record {

thread_local bool comesInHolding = false;

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

std::string literal(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", number);
    return text;
}

std::string literal(const void *pointer) {
    if (!pointer)
        return "None";
    return pointer == dev::Engine::current() ? "'engine'" : std::to_string(reinterpret_cast<uintptr_t>(pointer));
}

namespace {

template <typename Element> std::string array(const sonetrix_value_t &value) {
    return literal(static_cast<const Element *>(value.as.array), value.count);
}

const std::pair<const char *, std::string (*)(const sonetrix_value_t &)> types[] = {
    // in the order of their codes
    {"uint32", [](auto &value) { return literal(value.as.uint32); }},
    {"int32", [](auto &value) { return literal(value.as.int32); }},
    {"float", [](auto &value) { return literal(value.as.float32); }},
    {"string", [](auto &value) { return literal(value.as.string); }},
    {"auint32", array<uint32_t>},
    {"aint32", array<int32_t>},
    {"afloat", array<float>},
    {"double", [](auto &value) { return literal(value.as.float64); }},
};

template <typename List> std::string listLiteral(const List *list) {
    if (!list)
        return "None";
    std::string text = "[";
    for (const auto &element : *list)
        text += literal(&element.record()) + ",";
    return text + "]";
}

} // namespace

std::string literal(const sonetrix_value_t *value) {
    if (value->type >= std::size(types))
        return "('unknown'," + literal(value->type) + ")";
    const auto &[name, content] = types[value->type];
    return "('" + std::string(name) + "'," + content(*value) + ")";
}

std::string literal(const sonetrix_keyValue_t *entry) {
    return "(" + literal(entry->key) + "," + literal(&entry->value) + ")";
}
std::string literal(const sonetrix_cListValue_t *list) { return listLiteral(list); }
std::string literal(const sonetrix_cListKeyValue_t *list) { return listLiteral(list); }

int lockHeld() {
    auto *const initialized = found<int()>("Py_IsInitialized");
    auto *const check = found<int()>("PyGILState_Check");
    return initialized && check && initialized() ? check() : -1;
}

namespace {

struct State {
    std::recursive_mutex mutex;
    std::atomic<bool> noting = true;
    std::map<std::string, Hook> hooks;
    std::string calls, violations;
    std::map<const void *, bool> lists; // and whether the engine keeps it
    std::vector<std::function<void()>> ended;
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

void noteCall(const char *name, Lock rule, const std::string &arguments) {
    const int held = lockHeld();
    const bool free = rule == Lock::Either || held < 0 || (comesInHolding && rule == Lock::Released);
    if (!free && held != static_cast<int>(rule))
        violate(std::string(name) + " is called with the interpreter lock " + (held ? "held" : "released"));
    if (!state.noting)
        return;
    const std::lock_guard lock(state.mutex);
    state.calls += "('" + std::string(name) + "',(" + arguments + ")," + std::to_string(held) + "," +
                   std::to_string(gettid()) + "),\n";
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

void check(const char *name, const void *list) {
    const std::lock_guard lock(state.mutex);
    if (list && !state.lists.contains(list))
        violate(std::string(name) + " is given a list that is none");
}

} // namespace

int64_t recorded(const char *name,
    Lock rule,
    std::initializer_list<const void *> lists,
    const int64_t *arguments,
    const std::function<std::string()> &note,
    const std::function<std::string()> &read,
    const std::function<int64_t()> &answer) {
    for (const void *list : lists)
        check(name, list);
    noteCall(name, rule, state.noting ? note() : std::string());
    std::unique_lock lock(state.mutex);
    const Hook hook = state.hooks[name];
    lock.unlock();
    if (!hook)
        return answer();
    int64_t result = 0;
    const std::string before = read();
    const bool done = ask(hook, arguments, &result);
    if (read() != before)
        violate(std::string(name) + " reads a list that is changed meanwhile");
    return done ? result : answer();
}

void began(const void *list, bool engineKeeps) {
    const std::lock_guard lock(state.mutex);
    if (list)
        state.lists[list] = engineKeeps;
}

// While calls are noted, the list's memory is let go at the reset only, so that no other list gets its address.
void ended(const void *list, std::function<void()> destroy) {
    const std::lock_guard lock(state.mutex);
    if (state.lists.erase(list) == 0)
        return; // null, or a violation already
    if (state.noting)
        state.ended.push_back(std::move(destroy));
    else
        destroy();
}

} // namespace sonetrix::record

using namespace sonetrix::record;

void record_noting(int32_t on) { state.noting = on != 0; }
const char *record_calls(int32_t clear) { return listed(state.calls, clear != 0); }
const char *record_violations() { return listed(state.violations, true); }

void record_hook(const char *name, Hook hook) {
    const std::lock_guard lock(state.mutex);
    state.hooks[name] = hook;
}

// Forgets calls and hooks, and lets go of what has been destroyed.
void record_reset() {
    const std::lock_guard lock(state.mutex);
    state.hooks.clear();
    for (const auto &destroy : state.ended)
        destroy();
    state.ended.clear();
    state.calls.clear();
    state.noting = true;
}

// How many lists there are that the engine has given and not taken back.
int64_t record_lists() {
    const std::lock_guard lock(state.mutex);
    return std::ranges::count(state.lists, false, &decltype(state.lists)::value_type::second);
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

#include "record.h"

#include "engine.h"
#include "lists/lists.h"

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <string_view>
#include <unistd.h>

namespace sonetrix::record {

thread_local bool comesInHolding = false;
thread_local bool inHook = false;

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
    if (!std::isfinite(number))
        return std::isnan(number) ? "'nan'" : number > 0 ? "1e999" : "-1e999";
    char text[32];
    std::snprintf(text, sizeof text, "%.16e", number);
    return text;
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

std::string literal(const sonetrix_keyValue_t *entry) {
    return "(" + literal(entry->key) + "," + literal(&entry->value) + ")";
}

namespace {

template <typename List> std::string listLiteral(const List *list) {
    if (!list)
        return "None";
    std::string text = "[";
    for (const auto &element : *list)
        text += literal(&static_cast<const typename List::Record &>(element)) + ",";
    return text + "]";
}

} // namespace

std::string literal(const sonetrix_cListValue_t *list) { return listLiteral(list); }
std::string literal(const sonetrix_cListKeyValue_t *list) { return listLiteral(list); }

namespace {

// The layer knows no Python headers, as an engine does not.
template <typename Function> Function *python(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

// What the rules ask of the lock: 1 held, 0 released, -1 either: for values that the module initialises for itself, for
// what the console's host does on its own account, and for the log of a thread that came in holding the lock.
int ruleFor(std::string_view name) {
    for (const auto *family : {"sonetrix_valueList", "sonetrix_keyValueList", "sonetrix_clock_"}) {
        if (name.starts_with(family))
            return 1;
    }
    for (const auto *family : {"sonetrix_valueInit", "sonetrix_valueDeinit", "sonetrix_malloc", "sonetrix_free"}) {
        if (name.starts_with(family))
            return -1;
    }
    return name == "sonetrix_log" || (comesInHolding && name == "sonetrix_log_LogString") ? -1 : 0;
}

template <typename Items> std::string joined(const Items &items, const char *quote) {
    std::string text = "[";
    for (const std::string &item : items)
        text.append(quote).append(item).append(quote).append(",\n");
    return text + "]";
}

} // namespace

int lockHeld() {
    auto *const initialized = python<int()>("Py_IsInitialized");
    auto *const check = python<int()>("PyGILState_Check");
    return initialized && check && initialized() ? check() : -1;
}

ErrorKept::ErrorKept() {
    if (held_)
        python<void(void **, void **, void **)>("PyErr_Fetch")(&error_[0], &error_[1], &error_[2]);
}

ErrorKept::~ErrorKept() {
    if (held_)
        python<void(void *, void *, void *)>("PyErr_Restore")(error_[0], error_[1], error_[2]);
}

Recorder &Recorder::instance() {
    static auto &recorder = *new Recorder; // calls come until the very end of the process
    return recorder;
}

void Recorder::call(const char *name, const std::string &arguments) {
    const int held = lockHeld();
    if (const int rule = ruleFor(name); rule >= 0 && held >= 0 && held != rule)
        violate(std::string(name) + " is called with the interpreter lock " + (held ? "held" : "released"));
    if (!noting)
        return;
    const std::lock_guard lock(mutex_);
    calls_.push_back("('" + std::string(name) + "', (" + arguments + "), " + std::to_string(held) + ", " +
                     std::to_string(gettid()) + ")");
}

std::string Recorder::calls(bool clear) {
    const std::lock_guard lock(mutex_);
    std::string text = joined(calls_, "");
    if (clear)
        calls_.clear();
    return text;
}

void Recorder::violate(const std::string &what) {
    const std::lock_guard lock(mutex_);
    violations_.push_back(what);
}

std::string Recorder::violations() {
    const std::lock_guard lock(mutex_);
    std::string text = joined(violations_, "\"");
    violations_.clear();
    return text;
}

std::atomic<Hook> &Recorder::hook(const std::string &name) {
    const std::lock_guard lock(mutex_);
    return hooks_[name];
}

void Recorder::reset() {
    const std::lock_guard lock(mutex_);
    for (auto &[name, hook] : hooks_)
        hook = nullptr;
    calls_.clear();
    for (const auto &[list, destroy] : ended_)
        destroy(list);
    ended_.clear();
    std::erase_if(lists_, [](const auto &list) { return list.second; });
    noting = true;
}

void Recorder::began(const void *list, bool engineKeeps) {
    const std::lock_guard lock(mutex_);
    if (list)
        lists_.emplace(list, engineKeeps);
}

void Recorder::check(const char *name, const void *list) {
    const std::lock_guard lock(mutex_);
    if (list && !lists_.contains(list))
        violations_.push_back(std::string(name) + " is given a list that is none");
}

// While calls are noted, the list's memory is let go at the reset only, so that no other list gets its address.
void Recorder::ended(const char *name, const void *list, void (*destroy)(const void *)) {
    const std::lock_guard lock(mutex_);
    const auto found = lists_.find(list);
    if (found == lists_.end())
        return; // null, or a violation already
    if (found->second) {
        violations_.push_back(std::string(name) + " is given a list that the engine keeps");
        return;
    }
    lists_.erase(found);
    if (noting) {
        ended_.emplace_back(list, destroy);
    } else {
        destroy(list);
    }
}

void Recorder::forget(const void *list) {
    const std::lock_guard lock(mutex_);
    lists_.erase(list);
}

int64_t Recorder::listCount() {
    const std::lock_guard lock(mutex_);
    return std::ranges::count(lists_, false, &decltype(lists_)::value_type::second);
}

} // namespace sonetrix::record

// Takes any number of arguments; the message is noted as the log would show it.
void sonetrix_log(sonetrix_log_level_t level, const char *file, int32_t line, int32_t flag, const char *format, ...) {
    using namespace sonetrix::record;
    char message[4096];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(message, sizeof message, format, arguments);
    va_end(arguments);
    Recorder::instance().call("sonetrix_log",
        literal(level) + "," + literal(file) + "," + literal(line) + "," + literal(flag) + "," + literal(message));
}

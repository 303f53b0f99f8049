#include "record.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <unistd.h>

namespace sonetrix::record {

std::atomic<bool> active = false;
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
    if (!std::isfinite(number))
        return std::isnan(number) ? "'nan'" : number > 0 ? "1e999" : "-1e999";
    char text[32];
    std::snprintf(text, sizeof text, "%.16e", number);
    return text;
}

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

} // namespace

int lockHeld() {
    auto *const initialized = python<int()>("Py_IsInitialized");
    auto *const check = python<int()>("PyGILState_Check");
    return initialized && check && initialized() ? check() : -1;
}

LockGivenUp::LockGivenUp(bool really) : state_(really ? python<void *()>("PyEval_SaveThread")() : nullptr) {}

LockGivenUp::~LockGivenUp() {
    if (state_)
        python<void(void *)>("PyEval_RestoreThread")(state_);
}

Recorder &Recorder::instance() {
    static auto &recorder = *new Recorder; // calls come until the very end of the process
    return recorder;
}

void Recorder::call(const char *name, const std::string &arguments) {
    const int held = lockHeld();
    if (const int rule = ruleFor(name); rule >= 0 && held >= 0 && held != rule)
        violate(std::string(name) + " is called with the interpreter lock " + (held ? "held" : "released"));
    std::unique_lock lock(mutex_);
    if (noting)
        calls_.push_back("('" + std::string(name) + "', (" + arguments + "), " + std::to_string(held) + ", " +
                         std::to_string(gettid()) + ")");
    const auto delay = [&] { return scripts_.contains(name) ? scripts_[name].settings[Delay] : 0; };
    if (const int64_t longest = delay())
        changed_.wait_for(lock, std::chrono::milliseconds(longest), [&] { return delay() == 0; });
}

namespace {

template <typename Items> std::string joined(const Items &items, const char *quote) {
    std::string text = "[";
    for (const std::string &item : items)
        text.append(quote).append(item).append(quote).append(",\n");
    return text + "]";
}

} // namespace

std::string Recorder::takeCalls(bool clear) {
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

std::string Recorder::takeViolations() {
    const std::lock_guard lock(mutex_);
    std::string text = joined(violations_, "\"");
    violations_.clear();
    return text;
}

void Recorder::reset() {
    const std::lock_guard lock(mutex_);
    scripts_.clear();
    calls_.clear();
    for (const auto &[list, destroy] : ended_)
        destroy(list);
    ended_.clear();
    noting = true;
    changed_.notify_all();
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
    return static_cast<int64_t>(std::ranges::count(lists_, false, &decltype(lists_)::value_type::second));
}

int64_t Call::result() const {
    return Recorder::instance().withScript(name_, [&](Script &script) {
        if (script.results.empty())
            return script.settings[Result];
        const int64_t first = script.results.front();
        script.results.pop_front();
        return first;
    });
}

bool Call::null() const {
    return Recorder::instance().withScript(name_, [](Script &script) {
        int64_t &nulls = script.settings[Nulls];
        const bool withheld = nulls != 0;
        nulls -= nulls > 0 ? 1 : 0;
        return withheld;
    });
}

} // namespace sonetrix::record

#include "record.h"

#include <cmath>
#include <cstdio>
#include <string_view>
#include <unistd.h>

namespace sonetrix::record {

std::atomic<bool> active = false;

std::string literal(const char *text) {
    if (!text)
        return "None";
    std::string quoted = "b'";
    for (; *text; ++text) {
        char escaped[5];
        std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(*text));
        const bool plain = *text >= ' ' && *text <= '~' && *text != '\'' && *text != '\\';
        quoted += plain ? std::string(1, *text) : std::string(escaped);
    }
    return quoted + "'";
}

std::string literal(double number) {
    if (!std::isfinite(number))
        return std::isnan(number) ? "'nan'" : number > 0 ? "1e999" : "-1e999";
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", number);
    const std::string digits = text;
    return digits.find_first_of(".e") == std::string::npos ? digits + ".0" : digits;
}

namespace {

// The layer knows no Python headers, as an engine does not.
template <typename Function> Function *python(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

thread_local bool cameInHolding = false;

// What the rules ask of the lock: 1 held, 0 released, -1 either: for values that the module initialises for itself, for
// what the console's host does on its own account, and for the log of a thread that came in holding the lock.
int ruleFor(std::string_view name) {
    for (const auto *family : {"sonetrix_valueList", "sonetrix_keyValueList", "sonetrix_clock_"}) {
        if (name.starts_with(family))
            return 1;
    }
    for (const auto *free : {"sonetrix_valueInit", "sonetrix_valueDeinit", "sonetrix_malloc", "sonetrix_free"}) {
        if (name.starts_with(free))
            return -1;
    }
    return name == "sonetrix_log" || (cameInHolding && name == "sonetrix_log_LogString") ? -1 : 0;
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

ComesInHolding::ComesInHolding(bool really) : before_(cameInHolding) { cameInHolding = really; }

ComesInHolding::~ComesInHolding() { cameInHolding = before_; }

Recorder &Recorder::instance() {
    static auto &recorder = *new Recorder; // calls come until the very end of the process
    return recorder;
}

void Recorder::setNoting(bool on) { noting_ = on; }

std::string Recorder::takeCalls(bool clear) {
    const std::lock_guard lock(mutex_);
    std::string text = "[";
    for (const std::string &call : calls_)
        text += call + ",\n";
    if (clear)
        calls_.clear();
    return text + "]";
}

void Recorder::reset() {
    const std::lock_guard lock(mutex_);
    scripts_.clear();
    calls_.clear();
    for (const Ended &ended : ended_)
        ended.destroy(ended.list);
    ended_.clear();
    noting_ = true;
    changed_.notify_all();
}

void Recorder::note(const char *name, const std::string &arguments) {
    const int held = lockHeld();
    const std::lock_guard lock(mutex_);
    calls_.push_back("('" + std::string(name) + "', (" + arguments + "), " + std::to_string(held) + ", " +
                     std::to_string(gettid()) + ")");
}

void Recorder::checkLock(const char *name) {
    const int rule = ruleFor(name);
    const int held = lockHeld();
    if (rule >= 0 && held >= 0 && held != rule)
        violate(
            std::string(name) + (held ? " called with the interpreter lock" : " called without the interpreter lock"));
}

void Recorder::waitForDelay(const char *name) {
    std::unique_lock lock(mutex_);
    const auto found = scripts_.find(name);
    if (found == scripts_.end() || found->second.delay.count() == 0)
        return;
    const auto until = std::chrono::steady_clock::now() + found->second.delay;
    changed_.wait_until(lock, until, [&] { return !scripts_.contains(name) || scripts_[name].delay.count() == 0; });
}

void Recorder::violate(const std::string &what) {
    const std::lock_guard lock(mutex_);
    violations_.push_back(what);
}

std::string Recorder::takeViolations() {
    const std::lock_guard lock(mutex_);
    std::string text = "[";
    for (const std::string &violation : violations_)
        text += '"' + violation + "\", ";
    violations_.clear();
    return text + "]";
}

void Recorder::began(const void *list, bool engineKeeps) {
    const std::lock_guard lock(mutex_);
    if (list && lists_.emplace(list, engineKeeps).second && !engineKeeps)
        ++counts_[Lists];
}

void Recorder::check(const char *name, const void *list) {
    const std::lock_guard lock(mutex_);
    if (list && !lists_.contains(list))
        violations_.push_back(std::string(name) + " is given a list that is none");
}

bool Recorder::ended(const char *name, const void *list, void (*destroy)(const void *)) {
    const std::lock_guard lock(mutex_);
    const auto found = lists_.find(list);
    if (found == lists_.end())
        return false; // has been noted already
    if (found->second) {
        violations_.push_back(std::string(name) + " is given a list that the engine keeps");
        return false;
    }
    lists_.erase(found);
    --counts_[Lists];
    if (noting_)
        ended_.push_back({list, destroy});
    return !noting_;
}

void Recorder::forget(const void *list) {
    const std::lock_guard lock(mutex_);
    lists_.erase(list);
}

Call::Call(const char *name, const std::string &arguments) : name_(name) {
    Recorder &recorder = Recorder::instance();
    recorder.checkLock(name);
    if (recorder.noting())
        recorder.note(name, arguments);
    recorder.waitForDelay(name);
}

int64_t Call::result(int64_t fallback) const {
    return Recorder::instance().withScript(name_, [&](Script &script) {
        if (script.results.empty())
            return script.lastingResult.value_or(fallback);
        const int64_t first = script.results.front();
        script.results.pop_front();
        return first;
    });
}

bool Call::null() const {
    return Recorder::instance().withScript(name_, [](Script &script) {
        const bool withheld = script.nulls != 0;
        script.nulls -= script.nulls > 0 ? 1 : 0;
        return withheld;
    });
}

Script Call::script() const {
    return Recorder::instance().withScript(name_, [](Script &script) { return script; });
}

} // namespace sonetrix::record

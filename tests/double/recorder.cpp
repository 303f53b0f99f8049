#include "recorder.h"

#include <cmath>
#include <cstdio>
#include <dlfcn.h>
#include <unistd.h>

namespace sonetrix::testing {

std::string literal(const char *text) {
    if (!text) {
        return "None";
    }
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
    if (!std::isfinite(number)) {
        return std::isnan(number) ? "'nan'" : number > 0 ? "1e999" : "-1e999";
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.17g", number);
    const std::string digits = text;
    return digits.find_first_of(".e") == std::string::npos ? digits + ".0" : digits;
}

sonetrix_engine_t *engineHandle() {
    static char handle;
    return reinterpret_cast<sonetrix_engine_t *>(&handle);
}

std::string literal(const void *pointer) {
    if (!pointer) {
        return "None";
    }
    return pointer == engineHandle() ? "'engine'" : std::to_string(reinterpret_cast<uintptr_t>(pointer));
}

namespace {

// The double knows no Python headers, as an engine does not.
template <typename Function> Function *python(const char *name) {
    return reinterpret_cast<Function *>(dlsym(RTLD_DEFAULT, name));
}

} // namespace

int lockHeld() {
    auto *const initialized = python<int()>("Py_IsInitialized");
    auto *const check = python<int()>("PyGILState_Check");
    return initialized && check && initialized() ? check() : -1;
}

LockGivenUp::LockGivenUp(bool really) : state_(really ? python<void *()>("PyEval_SaveThread")() : nullptr) {}

LockGivenUp::~LockGivenUp() {
    if (state_) {
        python<void(void *)>("PyEval_RestoreThread")(state_);
    }
}

Recorder &Recorder::instance() {
    static Recorder recorder;
    return recorder;
}

void Recorder::add(const char *name, const std::string &arguments) {
    const int held = lockHeld();
    const std::lock_guard lock(mutex_);
    if (recording_) {
        calls_.push_back("('" + std::string(name) + "', (" + arguments + "), " + std::to_string(held) + ", " +
                         std::to_string(gettid()) + ")");
    }
}

std::string Recorder::takeCalls(bool clear) {
    const std::lock_guard lock(mutex_);
    std::string text = "[";
    for (const std::string &call : calls_) {
        text += call + ",\n";
    }
    if (clear) {
        calls_.clear();
    }
    return text + "]";
}

void Recorder::setRecording(bool on) {
    const std::lock_guard lock(mutex_);
    recording_ = on;
}

bool Recorder::isRecording() {
    const std::lock_guard lock(mutex_);
    return recording_;
}

void Recorder::reset() {
    const std::lock_guard lock(mutex_);
    scripts_.clear();
    calls_.clear();
    recording_ = true;
    changed_.notify_all();
}

void Recorder::waitForDelay(const std::string &name) {
    std::unique_lock lock(mutex_);
    const auto found = scripts_.find(name);
    if (found == scripts_.end() || found->second.delay.count() == 0) {
        return;
    }
    const auto until = std::chrono::steady_clock::now() + found->second.delay;
    changed_.wait_until(lock, until, [&] { return !scripts_.contains(name) || scripts_[name].delay.count() == 0; });
}

void Call::record(const std::string &arguments) const {
    Recorder::instance().add(name_, arguments);
    Recorder::instance().waitForDelay(name_);
}

int64_t Call::result(int64_t fallback) const {
    return Recorder::instance().withScript(name_, [&](Script &script) {
        if (script.results.empty()) {
            return script.lastingResult.value_or(fallback);
        }
        const int64_t next = script.results.front();
        script.results.pop_front();
        return next;
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

} // namespace sonetrix::testing

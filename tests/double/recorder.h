// What the recording engine notes about each call, and what a test has scripted for it.
#pragma once

#include "sonetrix/engine_api.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

namespace sonetrix::testing {

// The one engine handle there is.
sonetrix_engine_t *engineHandle();

// Arguments become Python literals, so that a test reads them back with ast.literal_eval.
std::string literal(const char *text);
std::string literal(double number);
std::string literal(const void *pointer); // None, 'engine' or a number
std::string literal(const sonetrix_value_t *value);
std::string literal(const sonetrix_cListValue_t *list);
std::string literal(const sonetrix_cListKeyValue_t *list);
inline std::string literal(float number) { return literal(static_cast<double>(number)); }
inline std::string literal(int32_t number) { return std::to_string(number); }
inline std::string literal(uint32_t number) { return std::to_string(number); }
inline std::string literal(size_t number) { return std::to_string(number); }
inline std::string literal(const std::string &alreadyLiteral) { return alreadyLiteral; }

template <typename Element> std::string arrayLiteral(const Element *elements, size_t count) {
    std::string text = "(";
    for (size_t i = 0; i < count; ++i) {
        text += literal(elements[i]) + ",";
    }
    return text + ")";
}

// The scripted behaviour of one function.
struct Script {
    std::deque<int64_t> results;          // used up first
    std::optional<int64_t> lastingResult; // then this
    int nulls = 0;                        // pointer results to withhold; negative: all
    std::chrono::milliseconds delay{0};
    std::string text;
    bool hasText = false;
    std::vector<double> numbers;
    const void *list = nullptr; // kept by the recorder's control functions
    void *user = nullptr;       // replaces the user pointer of an iteration
    bool givesLockUp = false;   // an iteration calls back without the interpreter lock that its caller holds
    bool stopsOnError = false;  // an iteration ends when its callback returns non-zero
};

// One call as seen by the function that was called: it is on record by the time this is constructed.
class Call {
public:
    template <typename... Args> explicit Call(const char *name, const Args &...args) : name_(name) {
        std::string text;
        ((text += literal(args) + ","), ...);
        record(text);
    }

    int64_t result(int64_t fallback = 0) const;
    int32_t status(int32_t fallback = 0) const { return static_cast<int32_t>(result(fallback)); }
    bool null() const;
    Script script() const;

private:
    void record(const std::string &arguments) const;

    const char *name_;
};

class Recorder {
public:
    static Recorder &instance();

    void add(const char *name, const std::string &arguments);
    std::string takeCalls(bool clear);
    void setRecording(bool on);
    bool isRecording();
    void reset();

    // Runs `change` on the function's script; every waiting delay is looked at again.
    template <typename Change> auto withScript(const std::string &name, Change change) {
        const std::lock_guard lock(mutex_);
        changed_.notify_all();
        return change(scripts_[name]);
    }
    // Waits as long as the function's delay says, or until it is taken back.
    void waitForDelay(const std::string &name);

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Script> scripts_;
    std::deque<std::string> calls_;
    bool recording_ = true;
};

// The interpreter lock given up, if `really`, by a thread that holds it.
class LockGivenUp {
public:
    explicit LockGivenUp(bool really);
    ~LockGivenUp();
    LockGivenUp(const LockGivenUp &) = delete;
    LockGivenUp &operator=(const LockGivenUp &) = delete;

private:
    void *state_ = nullptr;
};

// 1 or 0 as the calling thread holds the interpreter lock, -1 where no interpreter is running.
int lockHeld();

} // namespace sonetrix::testing

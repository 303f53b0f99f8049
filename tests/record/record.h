// A layer in front of the engine: it defines every function of the interface, notes each call, and answers it as the
// test has scripted or goes on to the engine. Loaded before the engine's library, it is what the module finds.
//
// After each call it has been checked that the interpreter lock was held or released as the rules ask, and that no
// list was used after its end; what was wrong stands in the violations.
#pragma once

#include "sonetrix/engine_api.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace sonetrix::record {

// While it is off, a call costs a load and an indirect call more.
extern __attribute__((visibility("hidden"))) std::atomic<bool> active;

template <auto function> inline constexpr const char *nameOf = nullptr; // specialised by what is generated

// The engine's own function.
template <auto function>
inline const auto next = reinterpret_cast<decltype(function)>(dlsym(RTLD_NEXT, nameOf<function>));

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
inline std::string literal(const sonetrix_module_t *module) { return literal(module->name); }

template <typename Element> std::string arrayLiteral(const Element *elements, size_t count) {
    std::string text = "(";
    for (size_t i = 0; i < count; ++i)
        text += literal(elements[i]) + ",";
    return text + ")";
}

// The scripted behaviour of one function.
struct Script {
    std::deque<int64_t> results;          // used up first
    std::optional<int64_t> lastingResult; // then this
    int nulls = 0;                        // pointer results to withhold; negative: all
    std::chrono::milliseconds delay{0};
    std::optional<std::string> text;
    std::optional<std::vector<double>> numbers;
    const sonetrix_cListKeyValue_t *list = nullptr;
    void *user = nullptr;      // replaces the user pointer of an iteration
    bool givesLockUp = false;  // an iteration calls back without the interpreter lock that its caller holds
    bool stopsOnError = false; // an iteration ends when its callback returns non-zero
    int callsInside = 0;       // a registration calls back that often before it returns
    bool quiet = false;        // a function without a result does nothing

    [[nodiscard]] bool answers() const { return !results.empty() || lastingResult || text || numbers || list; }
};

enum Count : int32_t { Lists, Values, Blocks };

class Recorder {
public:
    static Recorder &instance();

    void setNoting(bool on);
    std::string takeCalls(bool clear);
    // Forgets calls and scripts, and lets go of what has been destroyed.
    void reset();

    void note(const char *name, const std::string &arguments);
    [[nodiscard]] bool noting() const { return noting_; }
    void checkLock(const char *name);
    void waitForDelay(const char *name);
    template <typename Change> auto withScript(const std::string &name, Change change) {
        const std::lock_guard lock(mutex_);
        changed_.notify_all();
        return change(scripts_[name]);
    }

    void violate(const std::string &what);
    std::string takeViolations();

    void count(Count what, int64_t change) { counts_[what] += change; }
    [[nodiscard]] int64_t counted(Count what) const { return counts_[what]; }

    // Lists are known from the call that gives them until the one that destroys them.
    void began(const void *list, bool engineKeeps);
    void check(const char *name, const void *list);
    // True when the list may be destroyed now: while calls are noted, that waits for the reset, so that no other list
    // gets its address.
    bool ended(const char *name, const void *list, void (*destroy)(const void *));
    void forget(const void *list);

private:
    struct Ended {
        const void *list;
        void (*destroy)(const void *);
    };

    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Script> scripts_;
    std::deque<std::string> calls_;
    std::vector<std::string> violations_;
    std::map<const void *, bool> lists_; // and whether the engine keeps it
    std::vector<Ended> ended_;
    std::atomic<int64_t> counts_[3]{};
    std::atomic<bool> noting_ = true;
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

// The thread calls back into the module with the lock held: what the module then logs, it may log so.
class ComesInHolding {
public:
    explicit ComesInHolding(bool really);
    ~ComesInHolding();
    ComesInHolding(const ComesInHolding &) = delete;
    ComesInHolding &operator=(const ComesInHolding &) = delete;

private:
    bool before_;
};

// 1 or 0 as the calling thread holds the interpreter lock, -1 where no interpreter is running.
int lockHeld();

// A copy of the list, for the module; an empty one for null.
template <typename List> List *newList(const sonetrix_cListKeyValue_t *source);
template <> sonetrix_cListValue_t *newList(const sonetrix_cListKeyValue_t *source);
template <> sonetrix_cListKeyValue_t *newList(const sonetrix_cListKeyValue_t *source);
void appendAll(sonetrix_cListKeyValue_t *target, const sonetrix_cListKeyValue_t *source);

// A copy of the list, to be shown to callbacks: the engine keeps it.
class EngineList {
public:
    explicit EngineList(const sonetrix_cListKeyValue_t *source);
    ~EngineList();
    EngineList(const EngineList &) = delete;
    EngineList &operator=(const EngineList &) = delete;

    [[nodiscard]] sonetrix_cListKeyValue_t *get() const { return list_; }

private:
    sonetrix_cListKeyValue_t *list_;
};

// One call under way: it has been noted and has waited as long as its script says.
class Call {
public:
    Call(const char *name, const std::string &arguments);

    [[nodiscard]] const char *name() const { return name_; }
    [[nodiscard]] int64_t result(int64_t fallback = 0) const;
    [[nodiscard]] bool null() const;
    [[nodiscard]] Script script() const;

private:
    const char *name_;
};

// Fills in what a scripted function gives besides its result.
class Given {
public:
    Given(const Call &call, int64_t result) : call_(call), script_(call.script()), result_(result) {}

    template <typename T> void operator()(T /*goes in*/) {}
    void operator()(float *out) { *out = static_cast<float>(number()); }
    void operator()(uint32_t *out) { *out = static_cast<uint32_t>(number()); }
    void operator()(timespec *out) {
        const auto seconds = static_cast<time_t>(number());
        *out = {.tv_sec = seconds, .tv_nsec = static_cast<long>(number())};
    }
    void operator()(sonetrix_readMeters_t *out) { *out = nullptr; }
    void operator()(sonetrix_cListKeyValue_t *written) { appendAll(written, script_.list); }
    // What a failure leaves behind is not the caller's to free.
    void operator()(char **out) {
        static char none[] = "not to be freed";
        *out = result_ == 0 ? strdup(script_.text.value_or("").c_str()) : none;
    }
    void operator()(sonetrix_cListKeyValue_t **out) {
        *out = result_ == 0 && !call_.null() ? newList<sonetrix_cListKeyValue_t>(script_.list) : nullptr;
        Recorder::instance().began(*out, false);
    }

private:
    double number() {
        const size_t index = index_++;
        return script_.numbers && index < script_.numbers->size() ? (*script_.numbers)[index] : 0;
    }

    const Call &call_;
    Script script_;
    int64_t result_;
    size_t index_ = 0;
};

template <typename T>
inline constexpr bool isList =
    std::is_same_v<T, sonetrix_cListValue_t *> || std::is_same_v<T, const sonetrix_cListValue_t *> ||
    std::is_same_v<T, sonetrix_cListKeyValue_t *> || std::is_same_v<T, const sonetrix_cListKeyValue_t *>;

// The list that a function gives stays the engine's.
template <auto function>
inline constexpr bool engineKeeps = std::string_view(nameOf<function>) == "sonetrix_engine_getStartParameter";

// What is done where nothing is scripted: the engine's own function, unless there is a specialisation.
template <auto function> struct Real {
    template <typename... Arguments> static auto call(const Call & /*unused*/, Arguments... arguments) {
        return next<function>(arguments...);
    }
};

template <auto function, typename... Arguments> auto answer(const Call &call, Arguments... arguments) {
    using Result = decltype(function(arguments...));
    if constexpr (std::is_pointer_v<Result>) {
        if (call.null())
            return Result(nullptr);
    }
    if (std::is_void_v<Result> ? !call.script().quiet : !call.script().answers())
        return Real<function>::call(call, arguments...);
    const int64_t result = call.result();
    Given given(call, result);
    (given(arguments), ...);
    if constexpr (engineKeeps<function>) {
        return const_cast<Result>(call.script().list);
    } else if constexpr (isList<Result>) {
        return newList<std::remove_pointer_t<Result>>(call.script().list);
    } else if constexpr (std::is_pointer_v<Result>) {
        return Result(nullptr);
    } else if constexpr (!std::is_void_v<Result>) {
        return static_cast<Result>(result);
    }
}

template <typename Argument> void checkList(const char *name, Argument argument) {
    if constexpr (isList<Argument>)
        Recorder::instance().check(name, argument);
}

template <auto function, typename Note, typename... Arguments> auto recorded(Note note, Arguments... arguments) {
    Recorder &recorder = Recorder::instance();
    (checkList(nameOf<function>, arguments), ...);
    const std::string noted = recorder.noting() ? note() : std::string();
    const Call call(nameOf<function>, noted);
    if (!noted.empty() && note() != noted)
        recorder.violate(std::string(nameOf<function>) + " reads a list that is changed meanwhile");
    if constexpr (isList<decltype(function(arguments...))>) {
        const auto list = answer<function>(call, arguments...);
        recorder.began(list, engineKeeps<function>);
        return list;
    } else {
        return answer<function>(call, arguments...);
    }
}

} // namespace sonetrix::record

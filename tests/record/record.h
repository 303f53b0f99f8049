// A layer in front of the engine: it defines every function of the interface, notes each call, and answers it as the
// test has scripted or goes on to the engine. Loaded before the engine's library, it is what the module finds.
//
// Each call is held against the rules: the interpreter lock held or released as they ask, no list used after its end,
// no list changed while the engine reads it. What was wrong stands in the violations.
#pragma once

#include "sonetrix/engine_api.h"

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <map>
#include <mutex>
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

// What a test can say of a function in a number; the names are in support/record.py, in this order.
enum Setting {
    Result,       // of all further calls
    ResultOnce,   // of the next, before that; more of them queue up
    Nulls,        // pointer results to withhold; negative: all
    Delay,        // milliseconds, or until it is taken back
    Quiet,        // a function without a result does nothing
    List,         // the list that is given
    User,         // replaces the user pointer of an iteration
    GivesLockUp,  // an iteration calls back without the interpreter lock that its caller holds, for every n-th element
    StopsOnError, // an iteration ends when its callback returns non-zero
    CallsInside,  // a registration calls back that often before it returns; negative: on the calling thread
    SettingCount
};

struct Script {
    std::array<int64_t, SettingCount> settings{};
    std::deque<int64_t> results;
    std::vector<double> numbers; // what is filled in, in the order of the arguments
    std::string text;
    bool given = false; // something that lasts

    // The engine is not asked.
    [[nodiscard]] bool answers() const { return given || !results.empty(); }
    template <typename Type> [[nodiscard]] Type *pointer(Setting which) const {
        return reinterpret_cast<Type *>(settings[which]); // NOLINT(performance-no-int-to-ptr): what a test has set
    }
};

class Recorder {
public:
    static Recorder &instance();

    // Notes the call, unless that is off, and holds it up as long as the script says.
    void call(const char *name, const std::string &arguments);
    std::string takeCalls(bool clear);
    // Forgets calls and scripts, and lets go of what has been destroyed.
    void reset();
    template <typename Change> auto withScript(const std::string &name, Change change) {
        const std::lock_guard lock(mutex_);
        changed_.notify_all();
        return change(scripts_[name]);
    }
    Script script(const std::string &name) {
        return withScript(name, [](Script &script) { return script; });
    }

    void violate(const std::string &what);
    std::string takeViolations();

    // Lists are known from the call that gives them until the one that destroys them.
    void began(const void *list, bool engineKeeps);
    void check(const char *name, const void *list);
    void ended(const char *name, const void *list, void (*destroy)(const void *));
    void forget(const void *list);
    int64_t listCount();

    std::atomic<bool> noting = true;

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::string, Script> scripts_;
    std::deque<std::string> calls_;
    std::vector<std::string> violations_;
    std::map<const void *, bool> lists_; // and whether the engine keeps it
    std::vector<std::pair<const void *, void (*)(const void *)>> ended_;
};

// 1 or 0 as the calling thread holds the interpreter lock, -1 where no interpreter is running.
int lockHeld();

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

// Set while this thread calls back into the module with the lock held: what the module then logs, it may log so.
extern thread_local bool comesInHolding;

// A copy of the list; an empty one for null.
template <typename List> List *newList(const sonetrix_cListKeyValue_t *source);
template <> sonetrix_cListValue_t *newList(const sonetrix_cListKeyValue_t *source);
template <> sonetrix_cListKeyValue_t *newList(const sonetrix_cListKeyValue_t *source);
void deleteList(sonetrix_cListKeyValue_t *list);
void appendAll(sonetrix_cListKeyValue_t *target, const sonetrix_cListKeyValue_t *source);

// One call under way: it has been noted and held up.
class Call {
public:
    Call(const char *name, const std::string &arguments) : name_(name) {
        Recorder::instance().call(name, arguments);
        script_ = Recorder::instance().script(name);
    }

    [[nodiscard]] const char *name() const { return name_; }
    [[nodiscard]] const Script &script() const { return script_; }
    [[nodiscard]] int64_t setting(Setting which) const { return script_.settings[which]; }
    [[nodiscard]] const sonetrix_cListKeyValue_t *list() const {
        return script_.pointer<const sonetrix_cListKeyValue_t>(List);
    }
    [[nodiscard]] int64_t result() const;
    [[nodiscard]] bool null() const;

private:
    const char *name_;
    Script script_;
};

// Fills in what a scripted function gives besides its result.
class Given {
public:
    Given(const Call &call, int64_t result) : call_(call), result_(result) {}

    template <typename T> void operator()(T /*goes in*/) {}
    void operator()(float *out) { *out = static_cast<float>(number()); }
    void operator()(uint32_t *out) { *out = static_cast<uint32_t>(number()); }
    void operator()(timespec *out) {
        const auto seconds = static_cast<time_t>(number());
        *out = {.tv_sec = seconds, .tv_nsec = static_cast<long>(number())};
    }
    void operator()(sonetrix_readMeters_t *out) { *out = nullptr; }
    void operator()(sonetrix_cListKeyValue_t *written) { appendAll(written, call_.list()); }
    // What a failure leaves behind is not the caller's to free.
    void operator()(char **out) {
        static char none[] = "not to be freed";
        *out = result_ == 0 ? strdup(call_.script().text.c_str()) : none;
    }
    void operator()(sonetrix_cListKeyValue_t **out) {
        *out = result_ == 0 && !call_.null() ? newList<sonetrix_cListKeyValue_t>(call_.list()) : nullptr;
        Recorder::instance().began(*out, false);
    }

private:
    double number() { return index_ < call_.script().numbers.size() ? call_.script().numbers[index_++] : 0; }

    const Call &call_;
    int64_t result_;
    size_t index_ = 0;
};

template <typename T>
inline constexpr bool isList =
    std::is_pointer_v<T> && (std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, sonetrix_cListValue_t> ||
                                std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, sonetrix_cListKeyValue_t>);

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
    using Type = decltype(function(arguments...));
    if constexpr (std::is_void_v<Type>) {
        if (!call.setting(Quiet))
            Real<function>::call(call, arguments...);
    } else {
        if constexpr (std::is_pointer_v<Type>) {
            if (call.null())
                return Type(nullptr);
        }
        if (!call.script().answers())
            return Real<function>::call(call, arguments...);
        const int64_t result = call.result();
        Given given(call, result);
        (given(arguments), ...);
        if constexpr (engineKeeps<function>) {
            return const_cast<Type>(call.list());
        } else if constexpr (isList<Type>) {
            return newList<std::remove_pointer_t<Type>>(call.list());
        } else if constexpr (std::is_pointer_v<Type>) {
            return Type(nullptr);
        } else {
            return static_cast<Type>(result);
        }
    }
}

template <typename Argument> void checkList(const char *name, Argument argument) {
    if constexpr (isList<Argument>)
        Recorder::instance().check(name, argument);
}

template <auto function, typename Note, typename... Arguments> auto recorded(Note note, Arguments... arguments) {
    Recorder &recorder = Recorder::instance();
    (checkList(nameOf<function>, arguments), ...);
    const std::string noted = recorder.noting ? note() : std::string();
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

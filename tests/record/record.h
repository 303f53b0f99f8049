// A layer in front of the engine: it defines every function of the interface and notes each call, which is then
// answered by the test's hook, if there is one, else as by a quiet engine in which nothing happens by itself. Loaded
// before the engine's library, it is what the module finds.
//
// Each call is held against the rules: the interpreter lock held or released as they ask, no list used after its end,
// no list changed while the engine reads it. What was wrong stands in the violations.
#pragma once

#include "sonetrix/engine_api.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <deque>
#include <dlfcn.h>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

// The read function that the engine hands out is recorded, too.
sonetrix_cListKeyValue_t *readMeters(sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type);

namespace sonetrix::record {

template <auto function> inline constexpr const char *nameOf = nullptr; // specialised by what is generated

// The engine's own function.
template <auto function>
inline const auto next = reinterpret_cast<decltype(function)>(dlsym(RTLD_NEXT, nameOf<function>));

// Arguments become Python literals, so that a test reads them back with ast.literal_eval.
std::string literal(const char *text);
std::string literal(double number);
std::string literal(const void *pointer); // None, 'engine' or a number
std::string literal(const sonetrix_value_t *value);
std::string literal(const sonetrix_keyValue_t *entry);
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

// Answers a call from its arguments, a word each; when it does not, things go on as if it were not there.
using Hook = bool (*)(const int64_t *arguments, int64_t *result);

class Recorder {
public:
    static Recorder &instance();

    void call(const char *name, const std::string &arguments);
    void violate(const std::string &what);
    std::string calls(bool clear);
    std::string violations();
    // Forgets calls and hooks, and lets go of what has been destroyed.
    void reset();
    std::atomic<Hook> &hook(const std::string &name);

    // Lists are known from the call that gives them until the one that destroys them.
    void began(const void *list, bool engineKeeps);
    void check(const char *name, const void *list);
    void ended(const char *name, const void *list, void (*destroy)(const void *));
    void forget(const void *list);
    int64_t listCount();

    std::atomic<bool> noting = true;

private:
    std::mutex mutex_;
    std::map<std::string, std::atomic<Hook>> hooks_;
    std::deque<std::string> calls_;
    std::vector<std::string> violations_;
    std::map<const void *, bool> lists_; // and whether the engine keeps it
    std::vector<std::pair<const void *, void (*)(const void *)>> ended_;
};

// 1 or 0 as the calling thread holds the interpreter lock, -1 where no interpreter is running.
int lockHeld();

// Keeps a Python error that is set: a hook may be Python code, and an engine function called while one is on its way.
class ErrorKept {
public:
    ErrorKept();
    ~ErrorKept();
    ErrorKept(const ErrorKept &) = delete;
    ErrorKept &operator=(const ErrorKept &) = delete;

private:
    bool held_ = lockHeld() == 1;
    void *error_[3]{}; // type, value, traceback
};

extern thread_local bool comesInHolding; // this thread calls back with the lock held: so it may log
extern thread_local bool inHook;         // where memory does not run out

// Callbacks that are registered fire when the test says so.
enum class Kind : int32_t { Changes, SlowMeters, FastMeters, Timer };
using Callback = std::function<void(sonetrix_cListKeyValue_t *list, void *user)>;
void *addRegistration(Kind kind, Callback callback, void *user);
void removeRegistration(void *handle);

template <typename T>
inline constexpr bool isList =
    std::is_pointer_v<T> && (std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, sonetrix_cListValue_t> ||
                                std::is_same_v<std::remove_cv_t<std::remove_pointer_t<T>>, sonetrix_cListKeyValue_t>);

// What is done without a hook: the engine's own function, unless there is a specialisation.
template <auto function> struct Real {
    template <typename... Arguments> static auto call(Arguments... arguments) { return next<function>(arguments...); }
};

template <typename Argument> int64_t word(Argument argument) {
    int64_t word = 0;
    std::memcpy(&word, &argument, sizeof argument);
    return word;
}

// What an iteration goes over.
template <typename... Arguments> std::string contents(Arguments... /*unused*/) { return {}; }
template <typename List, typename Element>
requires isList<List *> std::string contents(const List *list, int32_t (*)(Element, void *), void * /*user*/) {
    return literal(list);
}

template <auto function, typename Note, typename... Arguments>
bool answered(Hook hook, int64_t *result, Note note, Arguments... arguments) {
    const int64_t words[] = {word(arguments)..., 0};
    const auto read = [&] { return note() + contents(arguments...); };
    const std::string before = read();
    const ErrorKept kept;
    inHook = true;
    const bool done = hook(words, result);
    inHook = false;
    if (read() != before)
        Recorder::instance().violate(std::string(nameOf<function>) + " reads a list that is changed meanwhile");
    return done;
}

template <typename Argument> void checkList(const char *name, Argument argument) {
    if constexpr (isList<Argument>)
        Recorder::instance().check(name, argument);
}

template <typename Argument> void takeList(Argument argument) {
    if constexpr (std::is_same_v<Argument, sonetrix_cListKeyValue_t **>)
        Recorder::instance().began(*argument, false);
}

template <auto function, typename Note, typename... Arguments> auto recorded(Note note, Arguments... arguments) {
    using Result = decltype(function(arguments...));
    Recorder &recorder = Recorder::instance();
    static std::atomic<Hook> &hook = recorder.hook(nameOf<function>);
    (checkList(nameOf<function>, arguments), ...);
    recorder.call(nameOf<function>, recorder.noting ? note() : std::string());
    int64_t word = 0;
    const Hook set = hook;
    const bool done = set && answered<function>(set, &word, note, arguments...);
    if constexpr (std::is_void_v<Result>) {
        if (!done)
            Real<function>::call(arguments...);
    } else {
        Result result{};
        std::memcpy(&result, &word, sizeof result);
        if (!done)
            result = Real<function>::call(arguments...);
        (takeList(arguments), ...);
        if constexpr (isList<Result>)
            recorder.began(result, std::string_view(nameOf<function>) == "sonetrix_engine_getStartParameter");
        return result;
    }
}

} // namespace sonetrix::record

// A layer in front of the engine: it defines every function of the interface and notes each call, which is then
// answered by the test's hook, if there is one, else by the development engine, which is never started; what is done
// otherwise says generate.py. Loaded before the engine's library, it is what the module finds.
//
// Each call is held against the rules: the interpreter lock held or released as they ask, no list changed while the
// engine reads it. What was wrong stands in the violations.
#pragma once

#include "control.h"

#include <atomic>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <string>
#include <type_traits>

// The read function that the engine hands out is recorded, too.
sonetrix_cListKeyValue_t *readMeters(sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type);

namespace sonetrix::record {

// Arguments become Python literals, so that a test reads them back with ast.literal_eval.
std::string literal(const char *text);
std::string literal(const void *pointer); // None, 'engine' or a number
template <typename Number>
requires(!std::is_pointer_v<Number>) std::string literal(Number number) { return std::to_string(number); }
// How many elements there are.
int64_t size(const sonetrix_cListValue_t *list);
int64_t size(const sonetrix_cListKeyValue_t *list);

// Arguments and results as words.
template <typename Value> int64_t word(Value value) {
    int64_t word = 0;
    std::memcpy(&word, &value, sizeof value);
    return word;
}
template <typename Value> Value as(int64_t word) {
    if constexpr (!std::is_void_v<Value>) {
        Value value{};
        std::memcpy(&value, &word, sizeof value);
        return value;
    }
}

enum class Lock { Released, Held, Either }; // the interpreter's, as the rules ask it of a call

struct Call {
    const char *name;
    Lock rule;
    const int64_t *arguments;
    std::string note;                // the arguments
    std::function<int64_t()> size;   // of the list that is read during the call
    std::function<int64_t()> answer; // unless a hook gives one
};
// Notes and checks the call, and gives its result.
int64_t recorded(const Call &call);

extern std::atomic<int64_t> lists; // that the engine has given and not taken back

// A function of the process, or of what comes behind the layer (RTLD_NEXT): the engine's own. The layer knows no Python
// headers, as an engine does not.
template <typename Function> Function *found(const char *name, void *where = RTLD_DEFAULT) {
    return reinterpret_cast<Function *>(dlsym(where, name));
}

// Callbacks that are registered fire when the test says so.
enum Kind : int32_t { Changes, SlowMeters, FastMeters, Timer };
using Callback = std::function<void(sonetrix_cListKeyValue_t *list, void *user)>;
void *addRegistration(Kind kind, Callback callback, void *user);
void removeRegistration(const void *handle);

} // namespace sonetrix::record

// The parts of the class `engine`, a table of static functions each.
#pragma once

#include "module.h"
#include "python/gil.h"

namespace sonetrix {

extern const std::span<const Method> engineStatusFunctions;    // engine_status.cpp
extern const std::span<const Method> engineParameterFunctions; // engine_parameters.cpp
extern const std::span<const Method> engineModuleFunctions;    // engine_modules.cpp
extern const std::span<const Method> engineMeterFunctions;     // engine_meters.cpp
extern const std::span<const Method> engineGraphFunctions;     // engine_graph.cpp
extern const std::span<const Method> engineTimerFunctions;     // timeout.cpp

// Whether the class still is as it was made.
bool isOriginalEngine();

// The argument `meters_type` as the engine's enumeration, fast where it was left out.
inline sonetrix_module_meters_type toMetersType(PyObject *argument) {
    return argument == nullptr ? sonetrix_module_meters_type{SONETRIX_METERS_FAST}
                               : toUInt32(argument, "enum sonetrix_module_meters_type");
}

// What a function of the engine answers that takes nothing but the engine.
template <class Question> auto ask(Question question) { return unlocked(question, requireEngine()); }

// Calls of `engine`'s own functions as Python code would make them, looked up on the class each time.
template <class... Args> Ref callEngine(const InternedString &name, Args *...args) {
    return callMethod(held(Held::engineClass), name, args...);
}

} // namespace sonetrix

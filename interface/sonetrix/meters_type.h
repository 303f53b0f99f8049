#pragma once

#include "module.h"

namespace sonetrix {

// The argument `meters_type` as the engine's enumeration, fast where it was left out.
inline sonetrix_module_meters_type toMetersType(PyObject *argument) {
    return argument == nullptr ? sonetrix_module_meters_type{SONETRIX_METERS_FAST}
                               : toUInt32(argument, "enum sonetrix_module_meters_type");
}

} // namespace sonetrix

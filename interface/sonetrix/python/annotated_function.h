#pragma once

#include "function.h"

namespace sonetrix {

// A callable like `function` that also has the signature's annotations, as `__annotations__` and for inspect. It costs
// a few nanoseconds a call.
Ref annotated(Ref function, const Method &method);

} // namespace sonetrix

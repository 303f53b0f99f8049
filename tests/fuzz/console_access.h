// The Python module `console_access`: the console's parts, for a target.
#pragma once

#include "python/ref.h"

PyObject *newConsoleAccess();

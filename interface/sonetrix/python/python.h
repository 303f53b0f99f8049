// The one place that includes the interpreter's headers.
#pragma once

#define PY_SSIZE_T_CLEAN
#include <Python.h>
// Until 3.13, frames have a header of their own.
#include <frameobject.h>

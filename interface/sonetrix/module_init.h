#pragma once

#include "python/python.h"

// The initialisation function of the module `sonetrix`.
extern "C" __attribute__((visibility("default"))) PyObject *PyInit_sonetrix();

// Whether the process has an engine that this library goes with.

#pragma once

#include <string>

namespace sonetrix {

// What is the matter with the process's engine: all functions of the interface that are missing, or another version of
// it. Empty when nothing is. Everything else of the library may be used only then.
std::string engineMismatch();

} // namespace sonetrix

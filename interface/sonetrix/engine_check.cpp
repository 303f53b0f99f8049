#include "engine_check.h"

#include <sonetrix/engine_api.h>

#include <cstdint>
#include <dlfcn.h>

namespace sonetrix {

namespace {

struct EngineFunction {
    const char *name;
    void (*address)();
};

// SONETRIX_ENGINE_FUNCTIONS is made of the interface header when the library is built.
#define SONETRIX_ENGINE_FUNCTION(name) {#name, reinterpret_cast<void (*)()>(&(name))},
const EngineFunction functions[] = {SONETRIX_ENGINE_FUNCTIONS(SONETRIX_ENGINE_FUNCTION)};
#undef SONETRIX_ENGINE_FUNCTION

std::string missingFunctions() {
    std::string names;
    std::size_t missing = 0;
    for (const EngineFunction &function : functions) {
        if (function.address == nullptr) {
            names += (missing == 0 ? "" : ", ") + std::string(function.name);
            ++missing;
        }
    }
    const std::string all = std::to_string(std::size(functions));
    if (missing == std::size(functions)) {
        return "the process has none of the " + all +
               " functions of the engine's interface; is it linked with -rdynamic?";
    }
    return missing == 0 ? "" : "the engine lacks " + std::to_string(missing) + " of " + all + " functions: " + names;
}

// An engine need not tell which version it was built with.
std::string otherVersion() {
    const auto *version = static_cast<const std::uint32_t *>(dlsym(RTLD_DEFAULT, "sonetrix_engineApiVersion"));
    if (version == nullptr || *version == SONETRIX_API_VERSION_MAJOR) {
        return "";
    }
    return "the engine was built with version " + std::to_string(*version) + " of its interface; this library's is " +
           std::to_string(SONETRIX_API_VERSION_MAJOR);
}

} // namespace

std::string engineMismatch() {
    std::string mismatch = missingFunctions();
    return mismatch.empty() ? otherVersion() : mismatch;
}

} // namespace sonetrix

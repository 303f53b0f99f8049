#include "shutdown.h"

#include "list_key_value.h"
#include "python/function.h"
#include "python/interpreter_guard.h"
#include "registration.h"

#include <utility>

namespace sonetrix {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds guardLimit = 5s;

bool begun = false;
bool complete = true;

} // namespace

bool shutDown(const ConsoleEnd *console) noexcept {
    if (std::exchange(begun, true)) {
        return complete; // the library's exit handler, among those that the console or a script runs
    }
    bool threadsEnd = true;
    if (console != nullptr) {
        clearPythonModule();
        threadsEnd = console->waitForPythonThreads();
    }
    const bool allRemoved = removeAllRegistrations();
    if (console != nullptr) {
        console->clearNamespace();
        console->runExitHandlers();
    } else {
        closeFunctions();
    }
    // A callable that has had its time already gets no more.
    const auto limit = allRemoved ? guardLimit : 0ms;
    const bool allOut = unlocked([limit] { return interpreterGuard.close(limit); });
    dropKeyCache();
    return complete = threadsEnd && allRemoved && allOut;
}

} // namespace sonetrix

// An engine program for tests: does with the command-line module what it is told, in that order, and reports.
//
//     console_host MODULE REPORT [other-thread] OPERATION...
//
// REPORT is the file for what has been noted, a Python dict: what the operations have found, lastly, "calls" all calls
// of engine functions, "violations" of the rules. With other-thread, the rest is not done by the process's main thread.
//
//     python.start TEXT, python.file TEXT, python.sigint NUMBER    start parameters for what is constructed next
//     construct, start, stop, run, destroy, second                 of the record; another record beside it
//     join                                                         the layer's thread of number 1
//     sonetrix_FUNCTION                                            gives null from now on
//     block, close-input                                           SIGINT and SIGURG, in this thread; standard input
//
// SIGTERM, SIGALRM and a stop request to the engine become a call of the record's stop on a thread of its own, as in an
// engine.

#include "control.h"

#include <algorithm>
#include <csignal>
#include <dlfcn.h>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

std::ostringstream report; // by the thread that carries the operations out

void note(const char *key, const auto &value) { report << "'" << key << "': " << value << ",\n"; }

sigset_t changeMask(int how, std::initializer_list<int> numbers) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : numbers)
        sigaddset(&signals, number);
    pthread_sigmask(how, &signals, nullptr);
    return signals;
}

void blockSignals() { changeMask(SIG_BLOCK, {SIGINT, SIGURG}); }

// The dispositions, the calling thread's mask, and the timers.
std::string signalState() {
    std::ostringstream text;
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (const int number : {SIGINT, SIGPIPE, SIGXFSZ, SIGURG, SIGALRM, SIGTTOU}) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        text << reinterpret_cast<void *>(action.sa_handler) << ' ' << sigismember(&mask, number) << '\n';
    }
    text << std::ifstream("/proc/self/timers").rdbuf();
    return text.str();
}

decltype(&sonetrix_engineCliCostructor) constructor = nullptr;
sonetrix_cListKeyValue_t *parameters = nullptr;
sonetrix_cliModule_t *module = nullptr;
std::mutex moduleMutex; // keeps stop apart from destroy, as is the engine's duty
std::string signalsBefore;

void addParameter(const std::string &setting) {
    const std::string key = setting.substr(0, setting.find(' '));
    const char *text = setting.c_str() + key.size() + 1;
    if (key == "python.sigint")
        sonetrix_keyValueListAddSU32(parameters, key.c_str(), static_cast<uint32_t>(std::stoul(text)));
    else
        sonetrix_keyValueListAddSS(parameters, key.c_str(), text);
}

void construct() {
    signalsBefore = signalState();
    sonetrix_cliModule_t *made = constructor(parameters, nullptr);
    // What was read from it is the record's own.
    sonetrix_keyValueListDestroy(std::exchange(parameters, sonetrix_keyValueListNew()));
    note("constructed", made != nullptr);
    const std::lock_guard lock(moduleMutex);
    module = made;
}

void stop() {
    const std::lock_guard lock(moduleMutex);
    if (module)
        module->stop(module);
}

void destroy() {
    std::unique_lock lock(moduleMutex);
    sonetrix_cliModule_t *ending = std::exchange(module, nullptr);
    lock.unlock();
    note("interactive", ending->interactive);
    note("sigintMode", ending->sigintMode);
    note("parametersConsumed", !ending->startCode && !ending->scriptPath);
    note("stopRequested", __atomic_load_n(&ending->stopRequested, __ATOMIC_SEQ_CST));
    const auto end = ending->destroy;
    end(ending);
    end(nullptr);
}

const std::map<std::string, void (*)()> operations{
    {"construct", construct},
    {"second", [] { note("second", constructor(nullptr, nullptr) != nullptr); }},
    {"start", [] { module->start(module); }},
    {"run", [] { note("run", module->run(module)); }},
    {"destroy", destroy},
    {"stop", stop},
    {"join", [] { record_join(1); }},
    {"block", blockSignals},
    {"close-input", [] { close(STDIN_FILENO); }},
};

void perform(const std::string &operation) {
    if (operation.starts_with("python."))
        addParameter(operation);
    else if (operation.starts_with("sonetrix_"))
        record_hook(operation.c_str(), [](auto *, auto *) { return true; });
    else
        operations.at(operation)();
}

} // namespace

int main(int argc, char **argv) {
    changeMask(SIG_BLOCK, {SIGINT}); // also in the threads that start now
    std::thread([signals = changeMask(SIG_BLOCK, {SIGTERM, SIGALRM})] {
        for (int number = 0; sigwait(&signals, &number) == 0;)
            stop();
    }).detach();
    record_begin();
    parameters = sonetrix_keyValueListNew();
    record_hook("sonetrix_engine_RequestStop", [](auto *, auto *) { return kill(getpid(), SIGTERM) != 0; });
    void *library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!library)
        throw std::runtime_error(dlerror());
    constructor = reinterpret_cast<decltype(constructor)>(dlsym(library, "sonetrix_engineCliCostructor"));
    std::signal(SIGPIPE, SIG_IGN); // not the default dispositions: it shows whether they are put back
    if (isatty(STDIN_FILENO) != 0)
        std::signal(SIGINT, [](int) {});
    changeMask(SIG_UNBLOCK, {SIGINT});
    const bool elsewhere = std::string_view(argv[3]) == "other-thread";
    const auto work = [&] {
        std::for_each(argv + (elsewhere ? 4 : 3), argv + argc, perform);
        note("signalsRestored", signalState() == signalsBefore);
    };
    if (elsewhere) {
        std::jthread other(work);
        blockSignals();
    } else {
        work();
    }
    note("violations", record_violations());
    note("calls", record_calls(0));
    std::ofstream(argv[2]) << "{" << report.str() << "}\n";
    return 0;
}

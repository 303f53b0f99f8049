// An engine program for tests: does with the command-line module what it is told, in that order, and reports.
//
//     console_host MODULE REPORT COMMANDS [other-thread] OPERATION...
//
// REPORT is the file for what has been noted, a Python dict: what the operations have found, lastly, "calls" all calls
// of engine functions, "violations" of the rules. COMMANDS is a file with further operations, one a line, that an
// engine thread carries out meanwhile. With other-thread, the rest is not done by the process's main thread.
//
//     text KEY TEXT, uint KEY NUMBER            start parameters for what is constructed next
//     construct, start, run, destroy, second    of the record; another record beside it
//     stop                                      a stop request
//     on THREAD TIMES, join THREAD              timer callbacks on an engine thread, which stays until it is joined
//     null FUNCTION                             an engine function gives null from now on
//     block, close-input                        SIGINT and SIGURG, in this thread; standard input
//     after MILLISECONDS OPERATION              by an engine thread
//
// A stop request to the engine becomes a call of the record's stop on a thread of its own, as in an engine. Before the
// record is destroyed, these threads have ended.

#include "control.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr auto engineSignals = {SIGINT, SIGTERM, SIGHUP}; // not for the engine's threads
constexpr int timers = 3;                                 // the layer's number of this kind of callbacks

std::ostringstream report; // by the thread that carries the operations out

void note(const char *key, const auto &value) { report << "'" << key << "': " << value << ",\n"; }

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

void changeMask(int how, std::initializer_list<int> numbers) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : numbers)
        sigaddset(&signals, number);
    pthread_sigmask(how, &signals, nullptr);
}

void blockConsoleSignals() { changeMask(SIG_BLOCK, {SIGINT, SIGURG}); }

std::mutex threadsMutex;
std::vector<std::jthread> threads;

void startThread(auto work) {
    const std::lock_guard lock(threadsMutex);
    threads.emplace_back([work = std::move(work)]() mutable {
        changeMask(SIG_BLOCK, engineSignals);
        work();
    });
}

void onSigint(int /*number*/) {}

void joinThreads() {
    std::vector<std::jthread> ending;
    const std::lock_guard lock(threadsMutex);
    ending.swap(threads);
}

decltype(&sonetrix_engineCliCostructor) constructor = nullptr;
sonetrix_cListKeyValue_t *parameters = nullptr;
sonetrix_cliModule_t *module = nullptr;
std::mutex moduleMutex; // keeps stop apart from destroy, as is the engine's duty
std::string signalsBefore;

sonetrix_cListKeyValue_t *nextParameters() { return parameters ? parameters : parameters = sonetrix_keyValueListNew(); }

void construct() {
    signalsBefore = signalState();
    sonetrix_cliModule_t *made = constructor(parameters, nullptr);
    if (parameters)
        sonetrix_keyValueListDestroy(std::exchange(parameters, nullptr)); // what was read from it is the record's own
    note("constructed", made != nullptr);
    struct sigaction action {};
    sigaction(SIGINT, nullptr, &action);
    note("handlesSigint", action.sa_handler != SIG_DFL && action.sa_handler != onSigint);
    if (made) {
        note("interactive", made->interactive);
        note("sigintMode", made->sigintMode);
    }
    const std::lock_guard lock(moduleMutex);
    module = made;
}

void start() {
    module->start(module);
    note("parametersConsumed", !module->startCode && !module->scriptPath);
}

void stop() {
    const std::lock_guard lock(moduleMutex);
    if (module)
        module->stop(module);
}

// A stop that the engine was asked for has reached the record before.
void destroy() {
    joinThreads();
    std::unique_lock lock(moduleMutex);
    sonetrix_cliModule_t *ending = std::exchange(module, nullptr);
    lock.unlock();
    if (ending) {
        note("stopRequested", __atomic_load_n(&ending->stopRequested, __ATOMIC_SEQ_CST));
        const auto end = ending->destroy;
        end(ending);
        end(nullptr);
    }
    note("signalsRestored", signalState() == signalsBefore);
}

using Words = std::istringstream;

template <typename Value> Value next(Words &words) {
    Value value;
    words >> value;
    return value;
}

std::string rest(Words &words) {
    std::string text;
    std::getline(words >> std::ws, text, '\0');
    return text;
}

void perform(const std::string &line);

const std::map<std::string, void (*)(Words &)> operations{
    {"text",
        [](Words &words) {
            const auto key = next<std::string>(words);
            sonetrix_keyValueListAddSS(nextParameters(), key.c_str(), rest(words).c_str());
        }},
    {"uint",
        [](Words &words) {
            const auto key = next<std::string>(words);
            sonetrix_keyValueListAddSU32(nextParameters(), key.c_str(), next<uint32_t>(words));
        }},
    {"construct", [](Words &) { construct(); }},
    {"second", [](Words &) { note("second", constructor(parameters, nullptr) != nullptr); }},
    {"start", [](Words &) { start(); }},
    {"run", [](Words &) { note("run", module->run(module)); }},
    {"destroy", [](Words &) { destroy(); }},
    {"stop", [](Words &) { stop(); }},
    {"on",
        [](Words &words) {
            const auto thread = next<int>(words);
            record_fireOn(thread, timers, nullptr, next<int>(words), 0);
        }},
    {"join", [](Words &words) { record_join(next<int>(words)); }},
    {"null", [](Words &words) { record_hook(rest(words).c_str(), [](auto *, auto *) { return true; }); }},
    {"block", [](Words &) { blockConsoleSignals(); }},
    {"close-input", [](Words &) { close(STDIN_FILENO); }},
    {"after",
        [](Words &words) {
            const auto delay = next<int>(words);
            startThread([delay, operation = rest(words)] {
                std::this_thread::sleep_for(std::chrono::milliseconds(delay));
                perform(operation);
            });
        }},
};

void perform(const std::string &line) {
    Words words(line);
    operations.at(next<std::string>(words))(words);
}

} // namespace

int main(int argc, char **argv) {
    changeMask(SIG_BLOCK, engineSignals); // also in the threads that start now
    record_begin();
    record_hook("sonetrix_engine_RequestStop", [](auto *, auto *) {
        startThread(stop);
        return false;
    });
    void *library = dlopen(argv[1], RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::cerr << "console_host: " << dlerror() << '\n';
        return 69;
    }
    constructor = reinterpret_cast<decltype(constructor)>(dlsym(library, "sonetrix_engineCliCostructor"));
    startThread([commands = std::ifstream(argv[3])]() mutable {
        for (std::string line; std::getline(commands, line);)
            perform(line);
    });
    std::signal(SIGPIPE, SIG_IGN); // not the default dispositions: it shows whether they are put back
    if (isatty(STDIN_FILENO) != 0)
        std::signal(SIGINT, onSigint);
    changeMask(SIG_UNBLOCK, engineSignals);
    const bool elsewhere = std::string_view(argv[4]) == "other-thread";
    const auto work = [&] { std::for_each(argv + (elsewhere ? 5 : 4), argv + argc, perform); };
    if (elsewhere) {
        std::jthread other(work);
        changeMask(SIG_BLOCK, {SIGINT, SIGURG, SIGALRM, SIGTERM, SIGHUP});
    } else {
        work();
    }
    joinThreads();
    note("violations", record_violations());
    note("calls", record_calls(0));
    std::ofstream(argv[2]) << "{" << report.str() << "}\n";
    return 0;
}

// An engine program for tests: does with the command-line module what it is told, in that order, and reports.
//
//     console_host MODULE REPORT COMMANDS FLAGS OPERATION...
//
// REPORT is the file for what has been noted, a Python dict: what the operations have found, lastly, "calls" all calls
// of engine functions, "violations" of the rules. COMMANDS is a file descriptor with further operations, one a line,
// that an engine thread carries out meanwhile; or -1. FLAGS are letters:
//     t    operations are carried out by a thread that is not the process's main thread
//     b    SIGINT and SIGURG are blocked before that
//     g    the process is not in its terminal's foreground group
//     d    SIGINT has its default disposition; else it is ignored, which shows whether that is put back
//
//     text KEY TEXT, uint KEY NUMBER, no-parameters    start parameters for what is constructed next
//     construct, start, run, destroy, second           of the record; another record beside it
//     stop                                             a stop request
//     fire KIND TIMES, on THREAD KIND TIMES            callbacks from a new engine thread, or from one that stays ...
//     join THREAD                                      ... until it is joined
//     null FUNCTION                                    an engine function gives null from now on
//     sleep MILLISECONDS
//     interrupt TIMES                                  SIGINT to the process, every millisecond
//     after MILLISECONDS OPERATION                     by an engine thread
//
// A stop request to the engine becomes a call of the record's stop on a thread of its own, as in an engine.

#include "control.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <sstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace {

using Words = std::vector<std::string>;

std::mutex reportMutex;
std::ostringstream report;

template <typename Value> void note(const char *key, const Value &value) {
    const std::lock_guard lock(reportMutex);
    report << "'" << key << "': " << value << ",\n";
}
void noteTruth(const char *key, bool value) { note(key, value ? "True" : "False"); }

// The dispositions, and the calling thread's mask.
std::string signalState() {
    std::ostringstream text;
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (const int number : {SIGINT, SIGPIPE, SIGXFSZ, SIGURG, SIGALRM, SIGTTOU}) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        text << reinterpret_cast<void *>(action.sa_handler) << ' ' << sigismember(&mask, number) << '\n';
    }
    return text.str();
}

void blockSignals(std::initializer_list<int> numbers) {
    sigset_t signals;
    sigemptyset(&signals);
    for (const int number : numbers)
        sigaddset(&signals, number);
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
}

class EngineThreads {
public:
    void add(std::function<void()> work) {
        const std::lock_guard lock(mutex_);
        sigset_t before; // from their first instruction on
        pthread_sigmask(SIG_SETMASK, nullptr, &before);
        blockSignals({SIGINT, SIGTERM, SIGHUP});
        threads_.emplace_back(std::move(work));
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    void join() {
        std::vector<std::jthread> ending;
        const std::lock_guard lock(mutex_);
        ending.swap(threads_);
    }

private:
    std::mutex mutex_;
    std::vector<std::jthread> threads_;
};

decltype(&sonetrix_engineCliCostructor) constructor = nullptr;
sonetrix_cListKeyValue_t *parameters = nullptr;
sonetrix_cliModule_t *module = nullptr;
std::mutex moduleMutex; // keeps stop apart from destroy, as is the engine's duty
std::string signalsBefore;
EngineThreads stopThreads, otherThreads;
std::atomic<int64_t> blocks = 0; // of the engine's allocator
int context = 0;

void construct() {
    signalsBefore = signalState();
    sonetrix_cliModule_t *made = constructor(parameters, &context);
    noteTruth("constructed", made);
    struct sigaction action {};
    sigaction(SIGINT, nullptr, &action);
    noteTruth("handlesSigint", action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN);
    if (made) {
        noteTruth("contextKept", made->context == &context);
        note("interactive", made->interactive);
        note("sigintMode", made->sigintMode);
    }
    const std::lock_guard lock(moduleMutex);
    module = made;
}

void start() {
    module->start(module);
    noteTruth("parametersConsumed", !module->startCode && !module->scriptPath);
}

void stop() {
    const std::lock_guard lock(moduleMutex);
    if (module)
        module->stop(module);
}

// A stop that the engine was asked for has reached the record before.
void destroy() {
    stopThreads.join();
    std::unique_lock lock(moduleMutex);
    sonetrix_cliModule_t *ending = std::exchange(module, nullptr);
    lock.unlock();
    if (ending) {
        note("stopRequested", __atomic_load_n(&ending->stopRequested, __ATOMIC_SEQ_CST));
        const auto end = ending->destroy;
        end(ending);
        end(nullptr);
    }
    noteTruth("signalsRestored", signalState() == signalsBefore);
}

void withoutParameters() { sonetrix_keyValueListDestroy(std::exchange(parameters, nullptr)); }

int number(const std::string &text) { return std::stoi(text); }
void sleep(int milliseconds) { std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds)); }

void interrupt(int times) {
    for (; times > 0; --times) {
        sleep(1);
        kill(getpid(), SIGINT);
    }
}

bool giveNull(const int64_t * /*arguments*/, int64_t * /*result*/) { return true; }

struct Operation {
    size_t arguments;
    std::function<void(const std::string *)> carryOut;
};
const std::map<std::string, Operation> operations{
    {"text", {2, [](auto *word) { sonetrix_keyValueListAddSS(parameters, word[0].c_str(), word[1].c_str()); }}},
    {"uint", {2,
                 [](auto *word) {
                     sonetrix_keyValueListAddSU32(parameters, word[0].c_str(), static_cast<uint32_t>(number(word[1])));
                 }}},
    {"no-parameters", {0, [](auto *) { withoutParameters(); }}},
    {"construct", {0, [](auto *) { construct(); }}},
    {"second", {0, [](auto *) { noteTruth("second", constructor(parameters, &context)); }}},
    {"start", {0, [](auto *) { start(); }}},
    {"run", {0, [](auto *) { note("run", module->run(module)); }}},
    {"destroy", {0, [](auto *) { destroy(); }}},
    {"stop", {0, [](auto *) { stop(); }}},
    {"fire", {2, [](auto *word) { record_fire(number(word[0]), nullptr, 1, number(word[1])); }}},
    {"on", {3, [](auto *word) { record_fireOn(number(word[0]), number(word[1]), nullptr, number(word[2]), 0); }}},
    {"join", {1, [](auto *word) { record_join(number(word[0])); }}},
    {"null", {1, [](auto *word) { record_hook(word[0].c_str(), giveNull); }}},
    {"interrupt", {1, [](auto *word) { interrupt(number(word[0])); }}},
    {"sleep", {1, [](auto *word) { sleep(number(word[0])); }}},
};

void perform(const Words &words) {
    for (auto word = words.begin(); word != words.end();) {
        const bool later = *word == "after";
        const int delay = later ? number(word[1]) : 0;
        word += later ? 2 : 0;
        const Operation &operation = operations.at(*word);
        const Words arguments(word + 1, word + 1 + static_cast<ptrdiff_t>(operation.arguments));
        word += 1 + static_cast<ptrdiff_t>(operation.arguments);
        const auto work = [&operation, arguments, delay] {
            sleep(delay);
            operation.carryOut(arguments.data());
        };
        later ? otherThreads.add(work) : work();
    }
}

void obey(int descriptor) {
    FILE *input = fdopen(descriptor, "r");
    char line[256];
    while (input && std::fgets(line, sizeof line, input)) {
        std::istringstream text(line);
        perform({std::istream_iterator<std::string>(text), {}});
    }
}

// The rest of the program is another process, in a group of its own; this one ends as that does.
void goToTheBackground() {
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        return;
    }
    int status = 0;
    while (waitpid(child, &status, WUNTRACED) >= 0 && WIFSTOPPED(status)) {
        std::cerr << "console_host: stopped by signal " << WSTOPSIG(status) << '\n';
        kill(child, SIGKILL);
    }
    std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 70);
}

void beginRecord() {
    record_begin();
    record_hook("sonetrix_malloc", [](auto *, auto *) { return ++blocks == 0; });
    record_hook("sonetrix_free", [](auto *arguments, auto *) {
        blocks -= arguments[0] != 0;
        return false;
    });
    record_hook("sonetrix_engine_RequestStop", [](auto *, auto *) {
        stopThreads.add(stop);
        return false;
    });
}

} // namespace

int main(int argc, char **argv) {
    const Words words(argv + 1, argv + argc);
    const auto flag = [&](char letter) { return words.at(3).find(letter) != std::string::npos; };
    if (flag('g'))
        goToTheBackground();
    beginRecord();
    parameters = sonetrix_keyValueListNew();
    void *library = dlopen(words[0].c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::cerr << "console_host: " << dlerror() << '\n';
        return 69;
    }
    constructor = reinterpret_cast<decltype(constructor)>(dlsym(library, "sonetrix_engineCliCostructor"));
    std::signal(SIGINT, flag('d') ? SIG_DFL : SIG_IGN);
    if (const int descriptor = number(words[2]); descriptor >= 0)
        otherThreads.add([=] { obey(descriptor); });
    const auto work = [&] {
        if (flag('b'))
            blockSignals({SIGINT, SIGURG});
        perform(Words(words.begin() + 4, words.end()));
    };
    if (flag('t')) {
        std::jthread other(work);
        blockSignals({SIGINT, SIGURG, SIGALRM, SIGTERM, SIGHUP});
    } else {
        work();
    }
    otherThreads.join();
    if (parameters)
        withoutParameters();
    note("blocks", blocks);
    note("violations", record_violations());
    note("calls", record_calls(0));
    std::ofstream(words[1]) << "{" << report.str() << "}\n";
    return 0;
}

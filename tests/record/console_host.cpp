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
//     set FUNCTION SETTING NUMBER                      what an engine function does, see record.h
//     sleep MILLISECONDS
//     interrupt TIMES                                  SIGINT to the process, every millisecond
//     after MILLISECONDS OPERATION                     by an engine thread
//
// A stop request to the engine becomes a call of the record's stop on a thread of its own, as in an engine.

#include "control.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

using Words = std::vector<std::string>;

std::mutex reportMutex;
std::ostringstream report;

template <typename Value> void note(const char *key, const Value &value) {
    const std::lock_guard lock(reportMutex);
    report << "'" << key << "': " << value << ",\n";
}
void noteText(const char *key, const std::string &value) { note(key, "'" + value + "'"); }
void noteTruth(const char *key, bool value) { note(key, value ? "True" : "False"); }

std::string disposition() {
    struct sigaction action {};
    sigaction(SIGINT, nullptr, &action);
    return action.sa_handler == SIG_DFL ? "default" : action.sa_handler == SIG_IGN ? "ignored" : "handler";
}

// The dispositions and the calling thread's mask, as text.
std::string signalState() {
    std::ostringstream text;
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    for (const int number : {SIGINT, SIGPIPE, SIGXFSZ, SIGURG, SIGALRM, SIGTTOU}) {
        struct sigaction action {};
        sigaction(number, nullptr, &action);
        text << number << ':' << reinterpret_cast<void *>(action.sa_handler) << ':' << sigismember(&mask, number)
             << ' ';
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

// -------------------------------------------------------------------------------------------------- the operations

using Constructor = decltype(&sonetrix_engineCliCostructor);
Constructor constructor = nullptr;
sonetrix_cListKeyValue_t *parameters = nullptr;
sonetrix_cliModule_t *module = nullptr;
std::mutex moduleMutex; // keeps stop apart from destroy, as is the engine's duty
std::string signalsBefore;
EngineThreads stopThreads, otherThreads;
int context = 0;

void construct() {
    signalsBefore = signalState();
    sonetrix_cliModule_t *made = constructor(parameters, &context);
    noteTruth("constructed", made);
    noteText("sigintWhileConstructed", disposition());
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
    noteText("sigintAfter", disposition());
    noteTruth("signalsRestored", signalState() == signalsBefore);
}

void withoutParameters() { sonetrix_keyValueListDestroy(std::exchange(parameters, nullptr)); }

int number(const std::string &text) { return std::stoi(text); }
void sleep(const std::string &milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(number(milliseconds)));
}

void interrupt(int times) {
    for (int i = 0; i < times; ++i) {
        sleep("1");
        kill(getpid(), SIGINT);
    }
}

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
    {"set", {3, [](auto *word) { record_set(word[0].c_str(), number(word[1]), number(word[2])); }}},
    {"interrupt", {1, [](auto *word) { interrupt(number(word[0])); }}},
    {"sleep", {1, [](auto *word) { sleep(word[0]); }}},
};

void perform(const Words &words) {
    for (size_t at = 0; at < words.size();) {
        const bool later = words[at] == "after";
        const std::string delay = later ? words.at(at + 1) : "0";
        at += later ? 2 : 0;
        const Operation &operation = operations.at(words.at(at));
        const Words arguments(
            words.data() + at + 1, words.data() + std::min(words.size(), at + 1 + operation.arguments));
        const auto work = [operation, arguments, delay] {
            sleep(delay);
            operation.carryOut(arguments.data());
        };
        later ? otherThreads.add(work) : work();
        at += 1 + operation.arguments;
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

} // namespace

int main(int argc, char **argv) {
    const Words words(argv + 1, argv + argc);
    const std::string &flags = words.at(3);
    const auto flag = [&](char letter) { return flags.find(letter) != std::string::npos; };
    if (flag('g'))
        goToTheBackground();
    record_begin();
    const int64_t blocks = record_blocks();
    record_onStopRequest([] { stopThreads.add(stop); });
    parameters = sonetrix_keyValueListNew();
    void *library = dlopen(words[0].c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::cerr << "console_host: " << dlerror() << '\n';
        return 69;
    }
    constructor = reinterpret_cast<Constructor>(dlsym(library, "sonetrix_engineCliCostructor"));

    std::signal(SIGINT, flag('d') ? SIG_DFL : SIG_IGN);
    if (const int descriptor = number(words[2]); descriptor >= 0)
        otherThreads.add([=] { obey(descriptor); });
    const auto work = [&] {
        if (flag('b'))
            blockSignals({SIGINT, SIGURG});
        perform(Words(words.begin() + 4, words.end()));
    };
    if (flag('t')) {
        sigset_t all, before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        std::thread([&] {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            work();
        }).join();
    } else {
        work();
    }
    otherThreads.join();
    if (parameters)
        withoutParameters();

    note("exitCode", record_exitCode());
    note("blocks", record_blocks() - blocks);
    note("violations", record_violations());
    note("calls", record_calls(0));
    std::ofstream(words[1]) << "{" << report.str() << "}\n";
    return 0;
}

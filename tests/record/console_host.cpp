// An engine program for tests: does with the command-line module what it is told, in that order, and reports.
//
//     console_host MODULE [FLAG...] [OPERATION...]
//
//     --report FILE          where the report goes, a Python dict: what has been noted, "steps" the operations with
//                            their results, "calls" all calls of engine functions, "violations" of the rules
//     --commands FD          further operations, one a line, while the others are carried out; by an engine thread
//     --thread               operations are carried out by a thread that is not the process's main thread
//     --blocked              SIGINT and SIGURG are blocked before that
//     --background           the process is not in its terminal's foreground group
//
//     text KEY=TEXT, uint KEY=NUMBER, no-parameters    start parameters for what is constructed next
//     construct, start, run, destroy, second           of the record; another record beside it
//     stop                                             a stop request
//     fire KIND TIMES, on THREAD KIND TIMES            callbacks from a new engine thread, or from one that stays ...
//     join THREAD                                      ... until it is joined
//     null NAME TIMES, result NAME NUMBER, delay NAME MILLISECONDS    what an engine function does: see record.py
//     signal NUMBER                                    to the process
//     sleep MILLISECONDS
//     after MILLISECONDS OPERATION                     one operation, by an engine thread of its own
//
// Without operations: construct, start, run, destroy. A stop request to the engine becomes a call of the record's stop
// on a thread of its own, as in an engine.

#include "control.h"

#include "sonetrix/engine_api.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <mutex>
#include <span>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

using Words = std::span<const std::string>;
using Constructor = sonetrix_cliModule_t *(*)(sonetrix_cListKeyValue_t *, void *);

constexpr int watchedSignals[] = {SIGINT, SIGPIPE, SIGXFSZ, SIGURG, SIGALRM, SIGTTOU};

std::mutex reportMutex;
std::ostringstream report, steps;

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
    for (const int number : watchedSignals) {
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

class Host {
public:
    explicit Host(Constructor constructor) : constructor_(constructor), parameters_(sonetrix_keyValueListNew()) {
        host = this;
        record_onStopRequest([] { host->onEngineThread(host->stopThreads_, [] { host->stop(); }); });
    }
    ~Host() {
        join(threads_);
        if (parameters_)
            sonetrix_keyValueListDestroy(parameters_);
    }
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    // Carries out one operation; the words that are left.
    Words perform(Words words) {
        const std::string &name = words[0];
        const auto found = operations_.find(name);
        if (found == operations_.end() || words.size() <= found->second.arguments) {
            std::cerr << "console_host: cannot " << name << '\n';
            std::exit(64);
        }
        const Operation &operation = found->second;
        const auto result = operation.carryOut(words.subspan(1));
        const std::lock_guard lock(reportMutex);
        steps << "('" << name << "', " << result << "),\n";
        return words.subspan(1 + operation.arguments + (name == "after" ? operations_.at(words[2]).arguments : 0));
    }

    void onEngineThread(std::function<void()> work) { onEngineThread(threads_, std::move(work)); }

private:
    using Threads = std::vector<std::jthread>;

    void onEngineThread(Threads &threads, std::function<void()> work) {
        const std::lock_guard lock(threadsMutex_);
        threads.emplace_back([work = std::move(work)] {
            blockSignals({SIGINT, SIGTERM, SIGHUP});
            work();
        });
    }

    void join(Threads &threads) {
        Threads ending;
        const std::lock_guard lock(threadsMutex_);
        ending.swap(threads);
    }

    struct Operation {
        size_t arguments;
        std::function<std::string(Words)> carryOut;
    };

    static Operation operation(size_t arguments, std::function<void(Words)> work) {
        return {arguments, [work = std::move(work)](Words words) {
                    work(words);
                    return std::string("None");
                }};
    }
    static int number(const std::string &text) { return static_cast<int>(std::stol(text)); }
    static std::pair<std::string, std::string> pair(const std::string &text) {
        return {text.substr(0, text.find('=')), text.substr(text.find('=') + 1)};
    }
    static void sleep(const std::string &milliseconds) {
        std::this_thread::sleep_for(std::chrono::milliseconds(number(milliseconds)));
    }

    std::string construct() {
        before_ = signalState();
        sonetrix_cliModule_t *record = constructor_(parameters_, &context_);
        noteTruth("constructed", record != nullptr);
        if (record) {
            noteTruth("contextKept", record->context == &context_);
            note("interactive", record->interactive);
            note("sigintMode", record->sigintMode);
        }
        noteText("sigintWhileConstructed", disposition());
        const std::lock_guard lock(recordMutex_);
        record_ = record;
        return record ? "True" : "False";
    }
    std::string second() {
        const bool made = constructor_(parameters_, &context_) != nullptr;
        noteTruth("second", made);
        noteText("sigintAfterSecond", disposition());
        return made ? "True" : "False";
    }
    void start() {
        record_->start(record_);
        noteTruth("parametersConsumed", !record_->startCode && !record_->scriptPath);
    }
    std::string run() {
        const int32_t result = record_->run(record_);
        note("run", result);
        return std::to_string(result);
    }
    // A stop that the engine was asked for has reached the record before.
    void destroy() {
        join(stopThreads_);
        if (record_)
            note("stopRequested", __atomic_load_n(&record_->stopRequested, __ATOMIC_SEQ_CST));
        sonetrix_cliModule_t *record = nullptr;
        {
            const std::lock_guard lock(recordMutex_);
            std::swap(record, record_);
        }
        if (record) {
            const auto end = record->destroy;
            end(record);
            end(nullptr);
        }
        noteText("sigintAfter", disposition());
        noteTruth("signalsRestored", signalState() == before_);
    }
    // Kept apart from destroy, as is the engine's duty.
    void stop() {
        const std::lock_guard lock(recordMutex_);
        if (record_)
            record_->stop(record_);
    }
    void withoutParameters() {
        sonetrix_keyValueListDestroy(parameters_);
        parameters_ = nullptr;
    }
    void after(Words words) {
        onEngineThread([this, delay = words[0], rest = std::vector<std::string>(words.begin() + 1, words.end())] {
            sleep(delay);
            perform(rest);
        });
    }

    static Host *host;

    Constructor constructor_;
    sonetrix_cListKeyValue_t *parameters_;
    sonetrix_cliModule_t *record_ = nullptr;
    std::mutex recordMutex_;
    int context_ = 0;
    std::string before_;
    std::mutex threadsMutex_;
    Threads threads_, stopThreads_;

    const std::map<std::string, Operation> operations_{
        {"text", operation(1,
                     [this](Words words) {
                         const auto [key, text] = pair(words[0]);
                         sonetrix_keyValueListAddSS(parameters_, key.c_str(), text.c_str());
                     })},
        {"uint", operation(1,
                     [this](Words words) {
                         const auto [key, text] = pair(words[0]);
                         sonetrix_keyValueListAddSU32(
                             parameters_, key.c_str(), static_cast<uint32_t>(std::stoul(text)));
                     })},
        {"no-parameters", operation(0, [this](Words) { withoutParameters(); })},
        {"construct", {0, [this](Words) { return construct(); }}},
        {"second", {0, [this](Words) { return second(); }}},
        {"start", operation(0, [this](Words) { start(); })},
        {"run", {0, [this](Words) { return run(); }}},
        {"destroy", operation(0, [this](Words) { destroy(); })},
        {"stop", operation(0, [this](Words) { stop(); })},
        {"fire", operation(2, [](Words words) { record_fire(number(words[0]), nullptr, 1, number(words[1])); })},
        {"on",
            operation(3,
                [](Words words) { record_fireOn(number(words[0]), number(words[1]), nullptr, number(words[2]), 0); })},
        {"join", operation(1, [](Words words) { record_join(number(words[0])); })},
        {"null", operation(2, [](Words words) { record_null(words[0].c_str(), number(words[1])); })},
        {"result", operation(2, [](Words words) { record_result(words[0].c_str(), number(words[1]), 1); })},
        {"delay", operation(2, [](Words words) { record_delay(words[0].c_str(), number(words[1])); })},
        {"signal", operation(1, [](Words words) { kill(getpid(), number(words[0])); })},
        {"sleep", operation(1, [](Words words) { sleep(words[0]); })},
        {"after", operation(2, [this](Words words) { after(words); })},
    };
};

Host *Host::host = nullptr;

struct Flags {
    std::string module, report;
    int commands = -1;
    bool thread = false, blocked = false, background = false;
    std::vector<std::string> operations;
};

Flags parse(const std::vector<std::string> &words) {
    Flags flags;
    flags.module = words.at(1);
    size_t i = 2;
    for (; i < words.size() && words[i].starts_with("--"); ++i) {
        if (words[i] == "--report") {
            flags.report = words.at(++i);
        } else if (words[i] == "--commands") {
            flags.commands = std::stoi(words.at(++i));
        } else if (words[i] == "--thread") {
            flags.thread = true;
        } else if (words[i] == "--blocked") {
            flags.blocked = true;
        } else if (words[i] == "--background") {
            flags.background = true;
        } else {
            std::cerr << "console_host: unknown flag " << words[i] << '\n';
            std::exit(64);
        }
    }
    flags.operations.assign(words.begin() + static_cast<std::ptrdiff_t>(i), words.end());
    if (flags.operations.empty())
        flags.operations = {"construct", "start", "run", "destroy"};
    return flags;
}

void obey(Host &host, int descriptor) {
    FILE *input = fdopen(descriptor, "r");
    char line[256];
    while (input && std::fgets(line, sizeof line, input)) {
        std::istringstream text(line);
        const std::vector<std::string> words{std::istream_iterator<std::string>(text), {}};
        host.perform(words);
    }
    if (input)
        std::fclose(input);
}

// The rest of the program is another process, in a group of its own; this one ends as that does.
void goToTheBackground() {
    const pid_t child = fork();
    if (child == 0) {
        setpgid(0, 0);
        return;
    }
    int status = 0;
    while (waitpid(child, &status, WUNTRACED) >= 0 && !WIFEXITED(status) && !WIFSIGNALED(status)) {
        std::cerr << "console_host: stopped by signal " << WSTOPSIG(status) << '\n';
        kill(child, SIGKILL);
    }
    std::_Exit(WIFEXITED(status) ? WEXITSTATUS(status) : 70);
}

void carryOut(const Flags &flags, Constructor constructor) {
    if (flags.blocked)
        blockSignals({SIGINT, SIGURG});
    Host host(constructor);
    if (flags.commands >= 0)
        host.onEngineThread([&] { obey(host, flags.commands); });
    for (Words left = flags.operations; !left.empty();)
        left = host.perform(left);
}

} // namespace

int main(int argc, char **argv) {
    const Flags flags = parse({argv, argv + argc});
    if (flags.background)
        goToTheBackground();
    record_begin();
    void *library = dlopen(flags.module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::cerr << "console_host: " << dlerror() << '\n';
        return 69;
    }
    const auto constructor = reinterpret_cast<Constructor>(dlsym(library, "sonetrix_engineCliCostructor"));

    // Any disposition but the default shows whether it is put back.
    std::signal(SIGINT, SIG_IGN);
    if (flags.thread) {
        sigset_t all, before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        std::thread([&] {
            pthread_sigmask(SIG_SETMASK, &before, nullptr);
            carryOut(flags, constructor);
        }).join();
    } else {
        carryOut(flags, constructor);
    }

    note("exitCode", record_exitCode());
    note("blocks", record_count(2));
    note("violations", record_violations());
    note("steps", "[" + steps.str() + "]");
    note("calls", record_calls(0));
    if (!flags.report.empty())
        std::ofstream(flags.report) << "{" << report.str() << "}\n";
    return 0;
}

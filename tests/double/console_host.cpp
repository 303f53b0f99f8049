// A minimal engine process: loads the command-line module against the recording engine, runs it, and reports.
//
//   console_host MODULE [option...]
//     --null-parameters      constructs with a null list
//     --text KEY=TEXT        a string start parameter
//     --uint KEY=NUMBER      an unsigned start parameter
//     --no-start, --no-run   leaves that step out
//     --second               constructs a second record while the first one's interpreter runs
//     --stop-before-run N    N stop requests between start and run
//     --stop-after MS        a stop request from another thread, MS milliseconds after run was entered
//     --commands FD          lines to obey while it runs: "stop", "fire KIND TIMES"
//     --report FILE          where the report goes: a Python dict
// A stop request to the recording engine becomes a call of the module's stop on a thread of its own, as in an engine.

#include "sonetrix/engine_api.h"

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

extern "C" {
void double_onStopRequest(void (*hook)());
const char *double_calls(int32_t clear);
int64_t double_counts(int32_t which);
int32_t double_exitCode();
int32_t double_registrations(int32_t kind);
void double_fire(int32_t kind, const void *list, int32_t threads, int32_t times);
}

namespace {

struct Options {
    std::string module, report;
    sonetrix_cListKeyValue_t *parameters = nullptr;
    bool start = true, run = true, second = false;
    int stopsBeforeRun = 0, stopAfter = -1, commands = -1;
};

sonetrix_cliModule_t *module = nullptr;
std::vector<std::jthread> threads;

void stopFromAnotherThread() {
    threads.emplace_back([] { module->stop(module); });
}

void engineThread(const std::function<void()> &work) {
    threads.emplace_back([work] {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGINT);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        work();
    });
}

Options parse(const std::vector<std::string> &words) {
    Options options;
    options.module = words.at(1);
    options.parameters = sonetrix_keyValueListNew();
    for (size_t i = 2; i < words.size(); ++i) {
        const std::string &word = words[i];
        const auto next = [&] { return words.at(++i); };
        const auto pair = [&] {
            const std::string text = next();
            return std::pair(text.substr(0, text.find('=')), text.substr(text.find('=') + 1));
        };
        if (word == "--null-parameters") {
            sonetrix_keyValueListDestroy(options.parameters);
            options.parameters = nullptr;
        } else if (word == "--text") {
            const auto [key, text] = pair();
            sonetrix_keyValueListAddSS(options.parameters, key.c_str(), text.c_str());
        } else if (word == "--uint") {
            const auto [key, text] = pair();
            sonetrix_keyValueListAddSU32(options.parameters, key.c_str(), static_cast<uint32_t>(std::stoul(text)));
        } else if (word == "--no-start") {
            options.start = false;
        } else if (word == "--no-run") {
            options.run = false;
        } else if (word == "--second") {
            options.second = true;
        } else if (word == "--stop-before-run") {
            options.stopsBeforeRun = std::stoi(next());
        } else if (word == "--stop-after") {
            options.stopAfter = std::stoi(next());
        } else if (word == "--commands") {
            options.commands = std::stoi(next());
        } else if (word == "--report") {
            options.report = next();
        } else {
            std::cerr << "console_host: unknown option " << word << '\n';
            std::exit(64);
        }
    }
    return options;
}

void obey(int descriptor) {
    FILE *input = fdopen(descriptor, "r");
    char line[256];
    while (input && std::fgets(line, sizeof line, input)) {
        std::istringstream words(line);
        std::string verb;
        int kind = 0;
        int times = 1;
        words >> verb >> kind >> times;
        if (verb == "stop") {
            module->stop(module);
        } else if (verb == "fire") {
            double_fire(kind, nullptr, 1, times);
        }
    }
    if (input) {
        std::fclose(input);
    }
}

std::string disposition() {
    struct sigaction action {};
    sigaction(SIGINT, nullptr, &action);
    return action.sa_handler == SIG_DFL ? "default" : action.sa_handler == SIG_IGN ? "ignored" : "handler";
}

} // namespace

int main(int argc, char **argv) {
    const Options options = parse({argv, argv + argc});
    void *library = dlopen(options.module.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        std::cerr << "console_host: " << dlerror() << '\n';
        return 69;
    }
    using Constructor = sonetrix_cliModule_t *(*)(sonetrix_cListKeyValue_t *, void *);
    const auto construct = reinterpret_cast<Constructor>(dlsym(library, "sonetrix_engineCliCostructor"));

    std::ostringstream report;
    const auto note = [&](const char *key, const auto &value) { report << "'" << key << "': " << value << ",\n"; };
    const auto noteText = [&](const char *key, const std::string &value) { note(key, "'" + value + "'"); };

    static int context = 0;
    // Any disposition but the default shows whether it is put back.
    std::signal(SIGINT, SIG_IGN);
    double_onStopRequest(stopFromAnotherThread);
    module = construct(options.parameters, &context);
    note("constructed", module ? "True" : "False");
    if (module) {
        note("contextKept", module->context == &context ? "True" : "False");
        note("interactive", module->interactive);
        note("sigintMode", module->sigintMode);
        noteText("sigintWhileConstructed", disposition());
        if (options.second) {
            note("second", construct(options.parameters, &context) ? "True" : "False");
            noteText("sigintAfterSecond", disposition());
        }
        if (options.start) {
            module->start(module);
        }
        note("parametersConsumed", !module->startCode && !module->scriptPath ? "True" : "False");
        for (int i = 0; i < options.stopsBeforeRun; ++i) {
            module->stop(module);
        }
        if (options.stopAfter >= 0) {
            engineThread([delay = std::chrono::milliseconds(options.stopAfter)] {
                std::this_thread::sleep_for(delay);
                module->stop(module);
            });
        }
        if (options.commands >= 0) {
            engineThread([descriptor = options.commands] { obey(descriptor); });
        }
        if (options.run) {
            note("run", module->run(module));
        }
        note("stopRequested", __atomic_load_n(&module->stopRequested, __ATOMIC_SEQ_CST)); // a stop may still come
        threads.clear();
        const auto destroy = module->destroy;
        destroy(module);
        destroy(nullptr);
    }
    noteText("sigintAfter", disposition());
    if (options.parameters) {
        sonetrix_keyValueListDestroy(options.parameters);
    }
    note("exitCode", double_exitCode());
    note("blocks", double_counts(2));
    note("misuses", double_counts(3));
    note("calls", double_calls(0));
    if (!options.report.empty()) {
        std::ofstream(options.report) << "{" << report.str() << "}\n";
    }
    return 0;
}

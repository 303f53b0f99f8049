#pragma once

#include "lists/lists.h"

#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>

namespace sonetrix::dev {

/// The engine's command-line module, from a shared library that stays loaded to the end of the process. All functions
/// but `stop` are for the thread that called `construct`.
class CliModule {
public:
    CliModule() = default;
    CliModule(const CliModule &) = delete;
    CliModule &operator=(const CliModule &) = delete;
    ~CliModule() { destroy(); }

    /// False with a reason in `error`.
    bool load(const std::filesystem::path &library, std::string &error);
    bool construct(ListKeyValue &startParameters, std::string &error);

    /// False when the module has left its start code untouched: it goes without an interpreter.
    bool start() {
        record_->start(record_);
        return record_->startCode == nullptr;
    }
    int32_t run() { return record_->run(record_); }
    /// May be called from any thread at any time; does nothing before `construct` and once `destroy` has begun.
    void stop();
    void destroy();

private:
    using Constructor = decltype(&sonetrix_engineCliCostructor);

    Constructor constructor_ = nullptr;
    std::mutex mutex_; // between `stop` and what changes the record
    sonetrix_cliModule_t *record_ = nullptr;
};

} // namespace sonetrix::dev

#pragma once

#include "lists/lists.h"

#include <dlfcn.h>
#include <filesystem>
#include <mutex>
#include <stdexcept>

namespace sonetrix::dev {

/// The engine's command-line module, from a shared library that stays loaded to the end of the process. All functions
/// but `stop` are for the thread that called `construct`.
class CliModule {
public:
    /// Throws std::runtime_error.
    explicit CliModule(const std::filesystem::path &library) {
        // With a slash in it the name is a path for the loader, never one to search for.
        const auto path = library.has_parent_path() ? library : "." / library;
        if (void *handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
            constructor_ = reinterpret_cast<decltype(constructor_)>(::dlsym(handle, "sonetrix_engineCliCostructor"));
        if (constructor_ == nullptr)
            throw std::runtime_error(::dlerror());
    }
    ~CliModule() { destroy(); }

    /// Whether there is a module now.
    bool construct(ListKeyValue &startParameters) {
        sonetrix_cliModule_t *const record = constructor_(&startParameters, nullptr);
        const std::lock_guard lock(mutex_);
        record_ = record;
        return record != nullptr;
    }
    /// False when the module has left its start code untouched: it goes without an interpreter.
    bool start() {
        record_->start(record_);
        return record_->startCode == nullptr;
    }
    int32_t run() { return record_->run(record_); }
    /// May be called from any thread at any time; does nothing before `construct` and once `destroy` has begun.
    void stop() {
        const std::lock_guard lock(mutex_);
        if (record_ != nullptr)
            record_->stop(record_);
    }
    void destroy() {
        std::unique_lock lock(mutex_);
        sonetrix_cliModule_t *const record = std::exchange(record_, nullptr);
        lock.unlock();
        if (record != nullptr)
            record->destroy(record);
    }

private:
    decltype(&sonetrix_engineCliCostructor) constructor_ = nullptr;
    std::mutex mutex_; // between `stop` and what changes the record
    sonetrix_cliModule_t *record_ = nullptr;
};

} // namespace sonetrix::dev

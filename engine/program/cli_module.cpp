#include "program/cli_module.h"

#include <dlfcn.h>
#include <utility>

namespace sonetrix::dev {

bool CliModule::load(const std::filesystem::path &library, std::string &error) {
    // With a slash in it the name is a path for the loader, never one to search for.
    const auto path = library.has_parent_path() ? library : "." / library;
    void *handle = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle != nullptr)
        constructor_ = reinterpret_cast<Constructor>(::dlsym(handle, "sonetrix_engineCliCostructor"));
    if (constructor_ == nullptr)
        error = ::dlerror();
    return constructor_ != nullptr;
}

bool CliModule::construct(ListKeyValue &startParameters, std::string &error) {
    sonetrix_cliModule_t *const record = constructor_(&startParameters, nullptr);
    if (record == nullptr)
        error = "the scripting module could not be created";
    const std::lock_guard lock(mutex_);
    record_ = record;
    return record != nullptr;
}

void CliModule::stop() {
    const std::lock_guard lock(mutex_);
    if (record_ != nullptr)
        record_->stop(record_);
}

void CliModule::destroy() {
    std::unique_lock lock(mutex_);
    sonetrix_cliModule_t *const record = std::exchange(record_, nullptr);
    lock.unlock();
    if (record != nullptr)
        record->destroy(record);
}

} // namespace sonetrix::dev

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
    record_ = constructor_(&startParameters, nullptr);
    if (record_ == nullptr) {
        error = "the scripting module could not be created";
        return false;
    }
    const std::lock_guard lock(stopMutex_);
    stoppable_ = record_;
    return true;
}

void CliModule::stop() {
    const std::lock_guard lock(stopMutex_);
    if (stoppable_ != nullptr)
        stoppable_->stop(stoppable_);
}

void CliModule::destroy() {
    {
        const std::lock_guard lock(stopMutex_);
        stoppable_ = nullptr;
    }
    if (sonetrix_cliModule_t *record = std::exchange(record_, nullptr))
        record->destroy(record);
}

} // namespace sonetrix::dev

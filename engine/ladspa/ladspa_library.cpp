#include "ladspa/ladspa_library.h"

#include <dlfcn.h>
#include <stdexcept>
#include <string>

namespace sonetrix::dev {

std::mutex &pluginMutex() {
    static std::mutex mutex;
    return mutex;
}

void LadspaLibrary::Close::operator()(void *library) const noexcept {
    const std::lock_guard lock(pluginMutex());
    dlclose(library);
}

namespace {

void *openLibrary(const std::filesystem::path &path) {
    const std::lock_guard lock(pluginMutex());
    if (void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL))
        return library;
    const char *reason = dlerror();
    throw std::runtime_error(reason != nullptr ? reason : path.string() + ": cannot be loaded");
}

} // namespace

LadspaLibrary::LadspaLibrary(const std::filesystem::path &path) : library_(openLibrary(path)) {
    descriptors_ = reinterpret_cast<LADSPA_Descriptor_Function>(dlsym(library_.get(), "ladspa_descriptor"));
    if (descriptors_ == nullptr)
        throw std::runtime_error(path.string() + ": is not a plugin library");
}

} // namespace sonetrix::dev

#pragma once

#include <filesystem>
#include <ladspa.h>
#include <memory>
#include <mutex>

namespace sonetrix::dev {

/// Held wherever plugin code runs that begins or ends something: plugins need not expect two of those at once.
std::mutex &pluginMutex();

/// An open plugin library; several may be open on the same file.
class LadspaLibrary {
public:
    /// Throws std::runtime_error with the reason.
    explicit LadspaLibrary(const std::filesystem::path &path);

    /// Null behind the last plugin.
    [[nodiscard]] const LADSPA_Descriptor *descriptor(unsigned long index) const { return descriptors_(index); }

private:
    struct Close {
        void operator()(void *library) const noexcept;
    };
    std::unique_ptr<void, Close> library_;
    LADSPA_Descriptor_Function descriptors_ = nullptr;
};

} // namespace sonetrix::dev

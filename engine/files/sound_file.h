#pragma once

#include <filesystem>
#include <memory>
#include <sndfile.h>

namespace sonetrix::dev {

struct SoundFileClose {
    void operator()(SNDFILE *file) const noexcept;
};
using SoundFile = std::unique_ptr<SNDFILE, SoundFileClose>;

/// Throws std::runtime_error with the reason.
SoundFile openSoundFile(const std::filesystem::path &path, int mode, SF_INFO &info);

} // namespace sonetrix::dev

#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <sndfile.h>

namespace sonetrix::dev {

struct SoundFileClose {
    void operator()(SNDFILE *file) const noexcept { sf_close(file); }
};
using SoundFile = std::unique_ptr<SNDFILE, SoundFileClose>;

// Both throw std::runtime_error with the reason, and do so where there is something other than a regular file.

SoundFile openSoundFile(const std::filesystem::path &path, SF_INFO &info);

/// Makes the file `path`, or replaces it. The format is that of `name`'s ending.
SoundFile createSoundFile(
    const std::filesystem::path &path, const std::filesystem::path &name, uint32_t rate, uint32_t channels);

/// Takes the time of day out of a complete WAV file, so that the same samples make the same file.
void forgetTime(const std::filesystem::path &path);

} // namespace sonetrix::dev

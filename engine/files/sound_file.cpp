#include "files/sound_file.h"

#include <stdexcept>

namespace sonetrix::dev {

void SoundFileClose::operator()(SNDFILE *file) const noexcept { sf_close(file); }

SoundFile openSoundFile(const std::filesystem::path &path, int mode, SF_INFO &info) {
    SoundFile file(sf_open(path.c_str(), mode, &info));
    if (!file)
        throw std::runtime_error(path.string() + ": " + sf_strerror(nullptr));
    return file;
}

} // namespace sonetrix::dev

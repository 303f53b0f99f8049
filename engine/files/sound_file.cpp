#include "files/sound_file.h"

#include <array>
#include <fstream>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace sonetrix::dev {

namespace {

// RF64 is plain WAV until it is larger than that can be.
constexpr std::array<std::pair<std::string_view, int>, 8> formats{{
    {"", SF_FORMAT_RF64 | SF_FORMAT_FLOAT},
    {".wav", SF_FORMAT_RF64 | SF_FORMAT_FLOAT},
    {".w64", SF_FORMAT_W64 | SF_FORMAT_FLOAT},
    {".aiff", SF_FORMAT_AIFF | SF_FORMAT_FLOAT},
    {".au", SF_FORMAT_AU | SF_FORMAT_FLOAT},
    {".caf", SF_FORMAT_CAF | SF_FORMAT_FLOAT},
    {".flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24},
    {".ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS},
}};

int formatOf(const std::filesystem::path &name) {
    const std::string ending = name.extension();
    for (const auto &[known, format] : formats)
        if (ending == known)
            return format;
    std::string endings;
    for (const auto &[known, format] : formats)
        endings += (known.empty() ? "" : " ") + std::string(known);
    throw std::runtime_error(name.string() + ": a recording's name ends in one of" + endings);
}

/// Others may wait for a peer, as pipes do, or are not to be replaced.
void checkRegular(const std::filesystem::path &path) {
    if (std::filesystem::exists(path) && !std::filesystem::is_regular_file(path))
        throw std::runtime_error(path.string() + ": is not a regular file");
}

SoundFile open(const std::filesystem::path &path, int mode, SF_INFO &info) {
    checkRegular(path);
    SoundFile file(sf_open(path.c_str(), mode, &info));
    if (!file)
        throw std::runtime_error(path.string() + ": " + sf_strerror(nullptr));
    return file;
}

} // namespace

SoundFile openSoundFile(const std::filesystem::path &path, SF_INFO &info) { return open(path, SFM_READ, info); }

SoundFile createSoundFile(
    const std::filesystem::path &path, const std::filesystem::path &name, uint32_t rate, uint32_t channels) {
    checkRegular(name);
    SF_INFO info{};
    info.samplerate = static_cast<int>(rate);
    info.channels = static_cast<int>(channels);
    info.format = formatOf(name);
    SoundFile file = open(path, SFM_WRITE, info);
    sf_command(file.get(), SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    sf_command(file.get(), SFC_SET_CLIPPING, nullptr, SF_TRUE); // for the formats of integers
    return file;
}

void forgetTime(const std::filesystem::path &path) {
    std::array<char, 256> head{};
    std::fstream file(path, std::ios::in | std::ios::out | std::ios::binary);
    file.read(head.data(), head.size());
    const size_t chunk = std::string_view(head.data(), head.size()).find("PEAK");
    constexpr size_t timeInChunk = 12;
    constexpr std::array<char, 4> never{};
    if (file && chunk != std::string_view::npos)
        file.seekp(static_cast<std::streamoff>(chunk + timeInChunk)).write(never.data(), never.size());
}

} // namespace sonetrix::dev

#include "ladspa_catalogue.h"

#include "ladspa_library.h"
#include "sonetrix/engine_api.h"

#include <cstdlib>
#include <ranges>
#include <set>
#include <stdexcept>
#include <system_error>

namespace sonetrix::dev {

namespace {

#if defined(__aarch64__)
constexpr const char *customaryPath =
    "/usr/local/lib/ladspa:/usr/lib/ladspa:/usr/lib/aarch64-linux-gnu/ladspa:/usr/lib64/ladspa";
#else
constexpr const char *customaryPath =
    "/usr/local/lib/ladspa:/usr/lib/ladspa:/usr/lib/x86_64-linux-gnu/ladspa:/usr/lib64/ladspa";
#endif

/// The directory's libraries in the order of their names.
std::set<std::filesystem::path> librariesIn(const std::filesystem::path &directory) {
    std::set<std::filesystem::path> libraries;
    std::error_code unreadable; // a directory that is not there has no plugins
    for (const auto &entry : std::filesystem::directory_iterator(directory, unreadable))
        if (entry.path().extension() == ".so")
            libraries.insert(entry.path());
    return libraries;
}

} // namespace

std::vector<std::filesystem::path> LadspaCatalogue::standardDirectories() {
    const char *path = std::getenv("LADSPA_PATH");
    std::vector<std::filesystem::path> directories;
    for (const auto part : std::views::split(std::string_view(path != nullptr ? path : customaryPath), ':'))
        if (!part.empty())
            directories.emplace_back(std::string_view(part.begin(), part.end()));
    return directories;
}

std::vector<std::string> LadspaCatalogue::identifiers() {
    const auto names = std::views::keys(plugins());
    return {names.begin(), names.end()};
}

const LadspaCatalogue::Plugin *LadspaCatalogue::find(std::string_view identifier) {
    const auto &all = plugins();
    const auto found = all.find(identifier);
    return found == all.end() ? nullptr : &found->second;
}

const std::map<std::string, LadspaCatalogue::Plugin, std::less<>> &LadspaCatalogue::plugins() {
    std::call_once(scanned_, [this] { scan(); });
    return plugins_;
}

void LadspaCatalogue::scan() {
    std::set<std::filesystem::path> fileNames;
    for (const auto &directory : directories_) {
        for (const auto &library : librariesIn(directory)) {
            if (!fileNames.insert(library.filename()).second)
                continue;
            try {
                addLibrary(library);
            } catch (const std::runtime_error &reason) {
                sonetrix_log(SONETRIX_LOG_WARN, __FILE__, __LINE__, 1, "plugin library skipped: %s", reason.what());
            }
        }
    }
}

void LadspaCatalogue::addLibrary(const std::filesystem::path &path) {
    const LadspaLibrary library(path);
    for (unsigned long index = 0; const LADSPA_Descriptor *descriptor = library.descriptor(index); ++index) {
        const std::string label = descriptor->Label;
        const Plugin plugin{path, index};
        if (!plugins_.try_emplace(label, plugin).second)
            plugins_.try_emplace(path.stem().string() + '.' + label, plugin);
    }
}

} // namespace sonetrix::dev

#include "ladspa/ladspa_catalogue.h"

#include "ladspa/ladspa_library.h"
#include "sonetrix/engine_api.h"

#include <cstdlib>
#include <set>
#include <sstream>
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
    std::istringstream parts(path != nullptr ? path : customaryPath);
    std::vector<std::filesystem::path> directories;
    for (std::string part; std::getline(parts, part, ':');)
        if (!part.empty())
            directories.emplace_back(part);
    return directories;
}

std::vector<std::string> LadspaCatalogue::identifiers() {
    std::vector<std::string> names;
    for (const auto &[identifier, plugin] : plugins())
        names.push_back(identifier);
    return names;
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

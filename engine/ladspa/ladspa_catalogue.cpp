#include "ladspa_catalogue.h"

#include "refusal.h"
#include "sonetrix/engine_api.h"

#include <cstdlib>
#include <dlfcn.h>
#include <elf.h>
#include <fmt/ranges.h>
#include <fstream>
#include <set>
#include <sstream>
#include <system_error>

namespace sonetrix::dev {

namespace {

constexpr const char *customaryPath =
    "/usr/local/lib/ladspa:/usr/lib/ladspa:/usr/lib/" SONETRIX_MULTIARCH "/ladspa:/usr/lib64/ladspa";

/// The directory's libraries in the order of their names.
std::set<std::filesystem::path> librariesIn(const std::filesystem::path &directory) {
    std::set<std::filesystem::path> libraries;
    std::error_code unreadable; // a directory that is not there has no plugins
    for (std::filesystem::directory_iterator entry(directory, unreadable), end; !unreadable && entry != end;
         entry.increment(unreadable))
        if (entry->path().extension() == ".so")
            libraries.insert(entry->path());
    return libraries;
}

/// The loader maps what a library's headers name, and dies of it when the file is shorter.
bool isTruncated(const std::filesystem::path &path) {
    std::ifstream file(path, std::ios::binary);
    Elf64_Ehdr header{};
    Elf64_Phdr segment{};
    if (!file.read(reinterpret_cast<char *>(&header), sizeof header) || header.e_phentsize != sizeof segment)
        return false; // no library at all: the loader says so
    const uint64_t size = std::filesystem::file_size(path);
    file.seekg(static_cast<std::streamoff>(header.e_phoff));
    for (int i = 0; i < header.e_phnum; ++i)
        if (!file.read(reinterpret_cast<char *>(&segment), sizeof segment) ||
            segment.p_offset + segment.p_filesz > size)
            return true;
    return false;
}

LADSPA_Descriptor_Function openLibrary(const std::filesystem::path &path) {
    if (isTruncated(path))
        throw std::runtime_error(path.string() + ": file too short");
    void *library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (library == nullptr)
        throw std::runtime_error(dlerror());
    const auto descriptors = reinterpret_cast<LADSPA_Descriptor_Function>(dlsym(library, "ladspa_descriptor"));
    if (descriptors == nullptr)
        throw std::runtime_error(path.string() + ": is not a plugin library");
    return descriptors;
}

float inFloat(double bound) noexcept {
    constexpr double most = std::numeric_limits<float>::max();
    return static_cast<float>(std::clamp(bound, -most, most));
}

} // namespace

std::vector<std::string> LadspaCatalogue::identifiers() {
    std::vector<std::string> names;
    for (const auto &[identifier, plugin] : plugins())
        names.push_back(identifier);
    return names;
}

const LadspaPlugin &LadspaCatalogue::plugin(std::string_view identifier) {
    const auto &all = plugins();
    if (const auto found = all.find(identifier); found != all.end())
        return found->second;
    throw Refusal(statusNotFound, "there is no such plugin" + suggestion(identifier, identifiers()));
}

void LadspaCatalogue::describe(std::string_view name, ListKeyValue &result) {
    const std::string asked = "plugins." + std::string(name);
    for (const auto &[identifier, plugin] : plugins()) {
        const std::string prefix = "plugins." + identifier + '.';
        if (!name.empty() && !asked.starts_with(prefix))
            continue;
        const auto add = [&](const std::string &key, const auto &value) {
            if (asked == prefix || asked == prefix + key || (name.empty() && key == "title"))
                result.add(prefix + key, value);
        };
        add("title", plugin.descriptor->Name);
        add("sinks", fmt::format("{}", fmt::join(plugin.sinkNames, " ")));
        add("sources", fmt::format("{}", fmt::join(plugin.sourceNames, " ")));
        for (const auto &control : plugin.controls) {
            add(control.name + ".minimum", inFloat(control.domain.minimum));
            add(control.name + ".maximum", inFloat(control.domain.maximum));
            add(control.name + ".default", control.initial);
            add(control.name + ".unit", control.domain.unit);
        }
    }
}

const LadspaCatalogue::Plugins &LadspaCatalogue::plugins() {
    std::call_once(scanned_, [this] {
        plugins_ = scan();
        loaded_();
    });
    return plugins_;
}

LadspaCatalogue::Plugins LadspaCatalogue::scan() const {
    const char *path = std::getenv("LADSPA_PATH");
    std::istringstream directories(path != nullptr ? path : customaryPath);
    Plugins plugins;
    std::set<std::filesystem::path> fileNames;
    for (std::string directory; std::getline(directories, directory, ':');)
        for (const auto &library : librariesIn(directory))
            if (fileNames.insert(library.filename()).second)
                guarded([&] { addLibrary(library, plugins); }, [] { return "plugin library skipped"; });
    return plugins;
}

void LadspaCatalogue::addLibrary(const std::filesystem::path &path, Plugins &plugins) const {
    const std::lock_guard lock(pluginMutex);
    const LADSPA_Descriptor_Function descriptors = openLibrary(path);
    for (unsigned long index = 0; const LADSPA_Descriptor *descriptor = descriptors(index); ++index) {
        if (descriptor->Label == nullptr)
            throw std::runtime_error(path.string() + ": has a plugin without a label");
        LadspaPlugin plugin(path, *descriptor, rate_);
        const std::string label = descriptor->Label;
        plugin.identifier = plugins.contains(label) ? path.stem().string() + '.' + label : label;
        plugins.try_emplace(plugin.identifier, plugin);
    }
}

} // namespace sonetrix::dev

#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace sonetrix::dev {

/// The plugins in the plugin directories, by identifier. An identifier is the plugin's label; where several libraries
/// use a label, the first in search order has it and the others' plugins are called `library.label`. A library whose
/// file name an earlier directory has too is hidden by that one.
class LadspaCatalogue {
public:
    struct Plugin {
        std::filesystem::path library;
        unsigned long index;
    };

    explicit LadspaCatalogue(std::vector<std::filesystem::path> directories) : directories_(std::move(directories)) {}

    /// LADSPA_PATH, or the customary directories.
    static std::vector<std::filesystem::path> standardDirectories();

    /// The libraries are looked through when somebody asks for the first time. Safe for concurrent use.
    [[nodiscard]] std::vector<std::string> identifiers();
    /// Null when there is none; valid as long as the catalogue.
    [[nodiscard]] const Plugin *find(std::string_view identifier);

private:
    const std::map<std::string, Plugin, std::less<>> &plugins();
    void scan();
    void addLibrary(const std::filesystem::path &path);

    const std::vector<std::filesystem::path> directories_;
    std::once_flag scanned_;
    std::map<std::string, Plugin, std::less<>> plugins_;
};

} // namespace sonetrix::dev

#pragma once

#include "ladspa_plugin.h"
#include "lists/lists.h"

#include <map>

namespace sonetrix::dev {

/// The plugins in the directories of LADSPA_PATH, or the customary ones, by identifier. An identifier is the plugin's
/// label; where several libraries use a label, the first in search order has it and the others' plugins are called
/// `library.label`. A library whose file name an earlier directory has too is hidden by that one.
class LadspaCatalogue {
public:
    /// `rate` is what some plugins' ranges depend on; `loaded` is called once the libraries have been loaded.
    LadspaCatalogue(uint32_t rate, std::function<void()> loaded) : rate_(rate), loaded_(std::move(loaded)) {}

    /// The libraries are looked through when somebody asks for the first time. Safe for concurrent use.
    [[nodiscard]] std::vector<std::string> identifiers();
    /// Valid as long as the catalogue. Throws Refusal when there is none.
    [[nodiscard]] const LadspaPlugin &plugin(std::string_view identifier);

    /// Parameters that describe plugins: for an empty name all plugins' titles, for "identifier." all of that plugin.
    void describe(std::string_view name, ListKeyValue &result);

private:
    using Plugins = std::map<std::string, LadspaPlugin, std::less<>>;

    const Plugins &plugins();
    [[nodiscard]] Plugins scan() const;
    void addLibrary(const std::filesystem::path &path, Plugins &plugins) const;

    const uint32_t rate_;
    const std::function<void()> loaded_;
    std::once_flag scanned_;
    Plugins plugins_;
};

} // namespace sonetrix::dev

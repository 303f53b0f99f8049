#pragma once

#include "graph/parameters.h"

#include <filesystem>
#include <ladspa.h>

namespace sonetrix::dev {

/// Held wherever plugin code runs that begins or ends something: plugins need not expect two of those at once.
inline std::mutex pluginMutex;

/// A plugin as its descriptor tells it: its ports by their roles, with names for scripts. Its library stays loaded to
/// the end of the process: what plugins keep for all their instances would leak each time it is unloaded.
struct LadspaPlugin {
    struct Control {
        std::string name;
        unsigned long port;
        Domain domain;
        float initial;
        bool isContinuous; // neither whole number nor switch
    };

    LadspaPlugin(std::filesystem::path file, const LADSPA_Descriptor &plugin, uint32_t rate);

    std::filesystem::path library;
    const LADSPA_Descriptor *descriptor;
    std::string identifier{}; // the catalogue's
    std::vector<std::string> sourceNames{};
    std::vector<std::string> sinkNames{};
    std::vector<std::string> outputNames{};
    std::vector<unsigned long> sources{};
    std::vector<unsigned long> sinks{};
    std::vector<unsigned long> outputs{};
    std::vector<Control> controls{};
};

} // namespace sonetrix::dev

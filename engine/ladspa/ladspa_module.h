#pragma once

#include "clock.h"
#include "graph/module.h"
#include "ladspa_plugin.h"

#include <atomic>
#include <memory>
#include <string>

namespace sonetrix::dev {

/// A plugin instance. Its audio ports are the module's ports, its control inputs the module's parameters: 32-bit floats
/// whose ranges and initial values come from the plugin's hints.
///
/// A control that is written takes its new value at the next block; where `smoothing` (seconds) is not 0, it goes there
/// in a straight line, in steps of a few frames, in that time. Whole numbers and switches jump.
///
/// `configuration` (or null) gives control inputs other initial values: they are there when the plugin is activated.
/// Throws Refusal when it names an unknown one or has a value that cannot be written, or when the plugin gives no
/// instance.
std::shared_ptr<Module> makeLadspaModule(const std::string &name,
    const LadspaPlugin &plugin,
    const AudioFormat &format,
    const std::atomic<float> &smoothing,
    const ListKeyValue *configuration);

} // namespace sonetrix::dev

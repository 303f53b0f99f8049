#pragma once

#include "graph/module.h"
#include "sonetrix/engine_api.h"

#include <span>
#include <string>
#include <vector>

namespace sonetrix::dev {

/// A module's record for the C interface, with all that it points to. Never changed: what a module iteration shows is
/// the state at its beginning. The record's reference is null for every module, the driver's as well, so that the
/// ports of all are looked at.
class ModuleRecord {
public:
    /// `links`: for every sink the name of its source, empty for none.
    ModuleRecord(const Module &module, std::vector<std::string> links);
    ModuleRecord(const ModuleRecord &) = delete;
    ModuleRecord &operator=(const ModuleRecord &) = delete;

    [[nodiscard]] const sonetrix_module_t &get() const noexcept { return record_; }

private:
    const std::vector<std::string> links_;
    std::vector<sonetrix_port_t> ports_; // sources, then sinks
    std::vector<sonetrix_port_t *> pointers_;
    sonetrix_module_t record_{};
};

} // namespace sonetrix::dev

#include "graph/module.h"

#include <utility>

namespace sonetrix::dev {

namespace {

std::vector<std::string> engineWide(const std::string &module, const std::vector<std::string> &ports) {
    std::vector<std::string> names;
    names.reserve(ports.size());
    for (const std::string &port : ports)
        names.emplace_back(module).append(1, ':').append(port);
    return names;
}

} // namespace

Module::Module(std::string name,
    Type type,
    const std::vector<std::string> &sources,
    const std::vector<std::string> &sinks,
    uint32_t block)
    : name_(std::move(name)), type_(type), sources_(engineWide(name_, sources)), sinks_(engineWide(name_, sinks)) {
    outputs_.reserve(sources_.size());
    for (size_t i = 0; i < sources_.size(); ++i)
        outputs_.emplace_back(block);
}

} // namespace sonetrix::dev

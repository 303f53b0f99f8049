#include "graph/module_record.h"

#include <utility>

namespace sonetrix::dev {

namespace {

constexpr uint32_t audioPortType = 0;

/// The names are checked where modules are made; the record is all zero before.
template <size_t size> void copyName(char (&field)[size], const std::string &name) { name.copy(field, size - 1); }

} // namespace

ModuleRecord::ModuleRecord(const Module &module, std::vector<std::string> links) : links_(std::move(links)) {
    const size_t sources = module.sources().size();
    const size_t sinks = module.sinks().size();
    ports_.resize(sources + sinks);
    for (size_t i = 0; i < ports_.size(); ++i) {
        ports_[i].type = audioPortType;
        copyName(ports_[i].name, i < sources ? module.sources()[i] : module.sinks()[i - sources]);
        if (i >= sources && !links_[i - sources].empty())
            ports_[i].link = links_[i - sources].c_str();
        pointers_.push_back(&ports_[i]);
    }
    copyName(record_.name, module.name());
    record_.type = static_cast<uint32_t>(module.type());
    record_.sources = pointers_.data();
    record_.sourceCount = static_cast<uint32_t>(sources);
    record_.sinks = pointers_.data() + sources;
    record_.sinkCount = static_cast<uint32_t>(sinks);
}

} // namespace sonetrix::dev

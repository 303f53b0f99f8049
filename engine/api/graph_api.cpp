#include "api/engine_handle.h"

#include <cstring>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace sonetrix::dev;

namespace {

/// A list of strings for the caller; null when there is none.
ListValue *listOf(const std::vector<std::string> &strings) {
    if (strings.empty())
        return nullptr;
    auto list = std::make_unique<ListValue>();
    list->reserve(strings.size());
    for (const std::string &string : strings)
        list->add(string);
    return list.release();
}

} // namespace

sonetrix_cListValue_t *sonetrix_engine_GetModulesList(sonetrix_engine_t *engine) {
    return withEngine(engine, true, [](Engine &one) { return listOf(one.catalogue().identifiers()); });
}

sonetrix_cListValue_t *sonetrix_engine_GetAllPortNames(sonetrix_engine_t *engine) {
    return withEngine(engine, true, [](Engine &one) { return listOf(one.graph().portNames()); });
}

sonetrix_cListValue_t *sonetrix_engine_GetLinkPort(sonetrix_engine_t *engine, const char *port) {
    return withEngine(engine, port != nullptr, [&](Engine &one) { return listOf(one.graph().links(port)); });
}

int32_t sonetrix_engine_ModuleNew(
    sonetrix_engine_t *engine, const char *name, const char *identifier, const sonetrix_cListKeyValue_t *info) {
    return withEngine(engine, name != nullptr && identifier != nullptr,
        [&](Engine &one) { return one.graph().createModule(name, identifier, info); });
}

int32_t sonetrix_engine_ModuleDelete(sonetrix_engine_t *engine, const char *name) {
    return withEngine(engine, name != nullptr, [&](Engine &one) { return one.graph().deleteModule(name); });
}

int32_t sonetrix_engine_LinkPort(sonetrix_engine_t *engine, const char *p1, const char *p2) {
    const bool isLink = p2 != nullptr && *p2 != '\0';
    return withEngine(
        engine, p1 != nullptr, [&](Engine &one) { return isLink ? one.graph().link(p1, p2) : one.graph().unlink(p1); });
}

int32_t sonetrix_engine_ForEachModuleSafe(sonetrix_engine_t *engine, sonetrix_moduleCallback_t callback, void *user) {
    return withEngine(engine, callback != nullptr, [&](Engine &one) {
        one.graph().forEachRecord([&](const sonetrix_module_t &record) { callback(&record, user); });
    });
}

int32_t sonetrix_engine_ModuleUsage(
    sonetrix_engine_t *engine, const char *name, float *absolute, float *relative, uint32_t *processId) {
    return withEngine(engine, name != nullptr, [&](Engine &one) {
        const auto module = one.graph().module(name);
        const uint32_t threadId = one.driver().threadId();
        if (!module || threadId == 0)
            return statusNotFound;
        const float all = one.meanBlockTime();
        *absolute = 100.0F * module->meanTime() / one.driver().cpuFigures().budget;
        *relative = all > 0 ? 100.0F * module->meanTime() / all : 0.0F;
        *processId = threadId;
        return statusOk;
    });
}

int32_t sonetrix_engine_ModuleGetStartParameter(sonetrix_engine_t *engine,
    const sonetrix_module_t *module,
    char **library,
    sonetrix_cListKeyValue_t **configuration) {
    return withEngine(engine, module != nullptr, [&](Engine &one) {
        const auto plugin = one.graph().module(module->name);
        const Module::Origin *origin = plugin ? plugin->origin() : nullptr;
        if (origin == nullptr)
            return statusNotFound;
        auto list = std::make_unique<ListKeyValue>(origin->configuration);
        *library = strdup(origin->library.c_str());
        if (*library == nullptr)
            return statusNoMemory;
        *configuration = list.release();
        return statusOk;
    });
}

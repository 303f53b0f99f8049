#include "api/engine_handle.h"
#include "api/status.h"

#include <cstdlib>
#include <cstring>
#include <optional>

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
    if (engine == nullptr)
        return nullptr;
    return guardedPointer([&] { return listOf(engineOf(engine)->catalogue().identifiers()); });
}

sonetrix_cListValue_t *sonetrix_engine_GetAllPortNames(sonetrix_engine_t *engine) {
    if (engine == nullptr)
        return nullptr;
    return guardedPointer([&] { return listOf(engineOf(engine)->graph().portNames()); });
}

sonetrix_cListValue_t *sonetrix_engine_GetLinkPort(sonetrix_engine_t *engine, const char *port) {
    if (engine == nullptr || port == nullptr)
        return nullptr;
    return guardedPointer([&] { return listOf(engineOf(engine)->graph().links(port)); });
}

int32_t sonetrix_engine_ModuleNew(
    sonetrix_engine_t *engine, const char *name, const char *identifier, const sonetrix_cListKeyValue_t *info) {
    if (engine == nullptr || name == nullptr || identifier == nullptr)
        return statusInvalid;
    return guarded([&] { return engineOf(engine)->graph().createModule(name, identifier, info); });
}

int32_t sonetrix_engine_ModuleDelete(sonetrix_engine_t *engine, const char *name) {
    if (engine == nullptr || name == nullptr)
        return statusInvalid;
    return guarded([&] { return engineOf(engine)->graph().deleteModule(name); });
}

int32_t sonetrix_engine_LinkPort(sonetrix_engine_t *engine, const char *p1, const char *p2) {
    if (engine == nullptr || p1 == nullptr)
        return statusInvalid;
    const bool isLink = p2 != nullptr && *p2 != '\0';
    return guarded([&] {
        Graph &graph = engineOf(engine)->graph();
        return isLink ? graph.link(p1, p2) : graph.unlink(p1);
    });
}

int32_t sonetrix_engine_ForEachModuleSafe(sonetrix_engine_t *engine, sonetrix_moduleCallback_t callback, void *user) {
    if (engine == nullptr || callback == nullptr)
        return statusInvalid;
    return guarded([&] {
        const auto records = engineOf(engine)->graph().records();
        for (const auto &record : *records)
            callback(&record->get(), user);
        return statusOk;
    });
}

int32_t sonetrix_engine_ModuleUsage(
    sonetrix_engine_t *engine, const char *name, float *absolute, float *relative, uint32_t *processId) {
    if (engine == nullptr || name == nullptr)
        return statusInvalid;
    return guarded([&] {
        Engine &owner = *engineOf(engine);
        const auto module = owner.graph().module(name);
        const uint32_t threadId = owner.driver().threadId();
        if (!module || threadId == 0)
            return statusNotFound;
        const float all = owner.audioPath().meanTime();
        *absolute = 100.0F * module->meanTime() / owner.driver().cpuFigures().budget;
        *relative = all > 0 ? 100.0F * module->meanTime() / all : 0.0F;
        *processId = threadId;
        return statusOk;
    });
}

int32_t sonetrix_engine_ModuleGetStartParameter(sonetrix_engine_t *engine,
    const sonetrix_module_t *module,
    char **library,
    sonetrix_cListKeyValue_t **configuration) {
    if (engine == nullptr || module == nullptr)
        return statusInvalid;
    return guarded([&] {
        auto origin = engineOf(engine)->graph().origin(module->name);
        if (!origin)
            return statusNotFound;
        auto list = std::make_unique<ListKeyValue>(std::move(origin->configuration));
        *library = strdup(origin->library.c_str());
        if (*library == nullptr)
            return statusNoMemory;
        *configuration = list.release();
        return statusOk;
    });
}

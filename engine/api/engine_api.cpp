#include "clock.h"
#include "engine.h"
#include "refusal.h"
#include "thread.h"

using namespace sonetrix::dev;

namespace {

using MetersType = sonetrix_module_meters_type;

/// The C interface's engine handle points to the Engine; null for null.
Engine *engineOf(sonetrix_engine_t *handle) noexcept { return reinterpret_cast<Engine *>(handle); }

/// The same for whatever takes a lock or waits: null in a forked child, where a lock may be held for ever and the
/// engine's threads are not.
Engine *engineHere(sonetrix_engine_t *handle) noexcept { return isForkedChild() ? nullptr : engineOf(handle); }

/// `guarded(body(engine))`; refused as invalid without an engine or when an argument is not as it must be.
template <class Body, class... What>
auto withEngine(sonetrix_engine_t *handle, bool valid, Body &&body, const What &...what) noexcept {
    Engine *engine = engineHere(handle);
    if (engine == nullptr || !valid)
        return guarded(
            [&]() -> decltype(body(*engine)) { throw Refusal(statusInvalid, "no engine, or an invalid argument"); });
    engine->noteOtherwise();
    return guarded([&] { return body(*engine); }, what...);
}

/// For the caller; null in place of an empty list.
ListKeyValue *handedOver(ListKeyValue list) {
    return list.empty() ? nullptr : std::make_unique<ListKeyValue>(std::move(list)).release();
}

ListValue *listOf(const std::vector<std::string> &strings) {
    if (strings.empty())
        return nullptr;
    auto list = std::make_unique<ListValue>();
    for (const std::string &string : strings)
        list->add(string);
    return list.release();
}

ListKeyValue *readAsManager(sonetrix_engine_t *engine, const char *module, MetersType type) {
    const bool has = engineHere(engine) != nullptr && engineHere(engine)->meters().hasManager();
    return has ? sonetrix_engine_GetLastMeters(engine, module, type) : nullptr;
}

} // namespace

SONETRIX_ENGINE_BUILT_WITH_THIS_API;

sonetrix_engine_t *sonetrix_engineGet(void) { return reinterpret_cast<sonetrix_engine_t *>(Engine::current()); }

void sonetrix_engine_RequestStop(sonetrix_engine_t *engine) {
    if (engine != nullptr)
        engineOf(engine)->requestStop();
}

void sonetrix_engine_SetExitCode(sonetrix_engine_t *engine, int32_t code) {
    if (engine != nullptr)
        engineOf(engine)->setExitCode(code);
}

int32_t sonetrix_engine_IsRunning(sonetrix_engine_t *engine) {
    if (engineHere(engine) == nullptr)
        return 0;
    engineOf(engine)->noteWaiting();
    return engineOf(engine)->isRunning() ? 1 : 0;
}

sonetrix_cListKeyValue_t *sonetrix_engine_getStartParameter(sonetrix_engine_t *engine) {
    return engine != nullptr ? &engineOf(engine)->startParameters() : nullptr;
}

int32_t sonetrix_engine_DriverGetXRun(sonetrix_engine_t *engine) {
    return engine != nullptr ? static_cast<int32_t>(engineOf(engine)->driver().xruns()) : 0;
}

uint32_t sonetrix_engine_DriverGetFrameRate(sonetrix_engine_t *engine) {
    return engine != nullptr ? engineOf(engine)->driver().format().rate : 0;
}

int32_t sonetrix_engine_DriverGetCpuUsage(sonetrix_engine_t *engine,
    float *cpuUsageMean,
    float *cpuUsagePeakMean,
    float *timeUsage,
    float *timeUsagePeak,
    float *maxCpuTime,
    float *maxCpuTimeErr) {
    CpuFigures figures{};
    const int32_t status = withEngine(engine, true, [&](Engine &one) { figures = one.driver().cpuFigures(); });
    *cpuUsageMean = figures.usageMean;
    *cpuUsagePeakMean = figures.usagePeakMean;
    *timeUsage = figures.timeMean;
    *timeUsagePeak = figures.timePeak;
    *maxCpuTime = figures.budget;
    *maxCpuTimeErr = figures.latenessPeak;
    return status;
}

int32_t sonetrix_engine_DriverIsLoaded(const void *reference) {
    Engine *engine = Engine::current();
    return reference != nullptr && reference == engine && engine->driver().isLoaded() ? 1 : 0;
}

int32_t sonetrix_engine_DriverGetName(sonetrix_engine_t *engine, char **name) {
    *name = engine != nullptr ? strdup(engineOf(engine)->driver().name()) : nullptr;
    return *name != nullptr ? statusOk : statusFailed;
}

int32_t sonetrix_clock_sample_timestamp(sonetrix_engine_t *engine, struct timespec *time) {
    *time = timespecOf(engine != nullptr ? engineOf(engine)->driver().blockBegan() : 0);
    return engine != nullptr ? statusOk : statusInvalid;
}

int32_t sonetrix_clock_gettime(struct timespec *time) {
    return clock_gettime(CLOCK_REALTIME, time) == 0 ? statusOk : statusInvalid;
}

sonetrix_cListKeyValue_t *sonetrix_engine_GetParams(sonetrix_engine_t *engine, const sonetrix_cListValue_t *keys) {
    return withEngine(engine, keys != nullptr,
        [&](Engine &one) { return std::make_unique<ListKeyValue>(one.parameters().read(*keys)).release(); });
}

int32_t sonetrix_engine_SetParamsFull(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
    return withEngine(engine, parameters != nullptr && written != nullptr,
        [&](Engine &one) { return one.parameters().write(*parameters, *written) ? statusOk : statusInvalid; });
}

int32_t sonetrix_engine_SetParamsFullCli(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
    return sonetrix_engine_SetParamsFull(engine, parameters, written);
}

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
    return withEngine(
        engine, name != nullptr && identifier != nullptr,
        [&](Engine &one) { one.graph().createModule(name, identifier, info); },
        [&] { return "cannot create module " + inQuotes(name) + " from " + inQuotes(identifier); });
}

int32_t sonetrix_engine_ModuleDelete(sonetrix_engine_t *engine, const char *name) {
    return withEngine(
        engine, name != nullptr, [&](Engine &one) { one.graph().deleteModule(name); },
        [&] { return "cannot delete module " + inQuotes(name); });
}

int32_t sonetrix_engine_LinkPort(sonetrix_engine_t *engine, const char *p1, const char *p2) {
    const bool isLink = p2 != nullptr && *p2 != '\0';
    return withEngine(
        engine, p1 != nullptr, [&](Engine &one) { isLink ? one.graph().link(p1, p2) : one.graph().unlink(p1); },
        [&] {
            return isLink ? "cannot link " + inQuotes(p1) + " to " + inQuotes(p2) : "cannot unlink " + inQuotes(p1);
        });
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

void *sonetrix_engine_notify_changes_addCallback(
    sonetrix_engine_t *engine, sonetrix_listCallback_t callback, void *user) {
    return withEngine(
        engine, callback != nullptr, [&](Engine &one) { return one.notifier().callbacks().add(callback, user); });
}

void sonetrix_engine_notify_changes_rmCallback(sonetrix_engine_t *engine, void *handle) {
    if (Engine *one = engineHere(engine))
        one->notifier().callbacks().remove(handle);
}

void *sonetrix_engine_addTimer(
    sonetrix_engine_t *engine, int32_t milliseconds, sonetrix_timerCallback_t callback, void *user) {
    return withEngine(engine, callback != nullptr && milliseconds >= 0,
        [&](Engine &one) { return one.timers().add(milliseconds, callback, user); });
}

void sonetrix_engine_delTimer(sonetrix_engine_t *engine, void *handle) {
    if (Engine *one = engineHere(engine))
        one->timers().remove(handle);
}

void *sonetrix_engine_addCallbackMeterManager(
    sonetrix_engine_t *engine, MetersType type, sonetrix_listCallback_t callback, void *user) {
    return withEngine(engine, callback != nullptr && Meters::isType(type),
        [&](Engine &one) { return one.meters().callbacks(type).add(callback, user); });
}

void sonetrix_engine_rmCallbackMeterManager(sonetrix_engine_t *engine, void *handle) {
    if (Engine *one = engineHere(engine))
        for (const auto type : {SONETRIX_METERS_SLOW, SONETRIX_METERS_FAST})
            one->meters().callbacks(type).remove(handle);
}

int32_t sonetrix_engine_addDebugMeter(
    sonetrix_engine_t *engine, MetersType type, const char *key, const sonetrix_value_t *value) {
    return withEngine(engine, Meters::isType(type) && key != nullptr && value != nullptr,
        [&](Engine &one) { one.meters().setDebugMeter(type, key, *value); });
}

int32_t sonetrix_engine_delDebugMeter(sonetrix_engine_t *engine, MetersType type, const char *key) {
    return withEngine(engine, Meters::isType(type) && key != nullptr,
        [&](Engine &one) { return one.meters().removeDebugMeter(type, key) ? statusOk : statusNotFound; });
}

sonetrix_cListKeyValue_t *sonetrix_engine_GetLastMeters(
    sonetrix_engine_t *engine, const char *module, MetersType type) {
    return withEngine(engine, Meters::isType(type),
        [&](Engine &one) { return handedOver(one.meters().read(type, module != nullptr ? module : "")); });
}

sonetrix_cListKeyValue_t *sonetrix_engine_meterInfoList(sonetrix_engine_t *engine, MetersType type) {
    return withEngine(
        engine, Meters::isType(type), [&](Engine &one) { return handedOver(one.meters().descriptions(type)); });
}

int32_t sonetrix_engine_registerMeterManager(sonetrix_engine_t *engine, sonetrix_readMeters_t *read) {
    return withEngine(engine, read != nullptr, [&](Engine &one) {
        if (!one.meters().claimManager())
            return statusBusy;
        *read = readAsManager;
        return statusOk;
    });
}

int32_t sonetrix_engine_unregisterMeterManager(sonetrix_engine_t *engine) {
    return withEngine(
        engine, true, [](Engine &one) { return one.meters().releaseManager() ? statusOk : statusNotFound; });
}

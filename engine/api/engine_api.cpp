#include "api/engine_handle.h"
#include "clock.h"

#include <cstring>
#include <memory>
#include <utility>

using namespace sonetrix::dev;

namespace {

using MetersType = sonetrix_module_meters_type;

/// For the caller; null in place of an empty list.
ListKeyValue *handedOver(ListKeyValue list) {
    return list.empty() ? nullptr : std::make_unique<ListKeyValue>(std::move(list)).release();
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
    return engine != nullptr ? engineOf(engine)->driver().rate() : 0;
}

int32_t sonetrix_engine_DriverGetCpuUsage(sonetrix_engine_t *engine,
    float *cpuUsageMean,
    float *cpuUsagePeakMean,
    float *timeUsage,
    float *timeUsagePeak,
    float *maxCpuTime,
    float *maxCpuTimeErr) {
    CpuFigures figures;
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
    return withEngine(
        engine, callback != nullptr, [&](Engine &one) { return one.timers().add(milliseconds, callback, user); });
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

#include "api/engine_handle.h"
#include "api/status.h"
#include "clock.h"

#include <cstring>

using namespace sonetrix::dev;

SONETRIX_ENGINE_BUILT_WITH_THIS_API;

sonetrix_engine_t *sonetrix_engineGet(void) { return handleOf(Engine::current()); }

void sonetrix_engine_RequestStop(sonetrix_engine_t *engine) {
    if (engine != nullptr)
        engineOf(engine)->requestStop();
}

void sonetrix_engine_SetExitCode(sonetrix_engine_t *engine, int32_t code) {
    if (engine != nullptr)
        engineOf(engine)->setExitCode(code);
}

int32_t sonetrix_engine_IsRunning(sonetrix_engine_t *engine) {
    return engine != nullptr && engineOf(engine)->isRunning() ? 1 : 0;
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
    const CpuFigures figures = engine != nullptr ? engineOf(engine)->driver().cpuFigures() : CpuFigures{};
    *cpuUsageMean = figures.usageMean;
    *cpuUsagePeakMean = figures.usagePeakMean;
    *timeUsage = figures.timeMean;
    *timeUsagePeak = figures.timePeak;
    *maxCpuTime = figures.budget;
    *maxCpuTimeErr = figures.latenessPeak;
    return engine != nullptr ? statusOk : statusInvalid;
}

int32_t sonetrix_engine_DriverIsLoaded(const void *reference) {
    Engine *engine = Engine::current();
    return reference != nullptr && reference == engine && engine->driver().isLoaded() ? 1 : 0;
}

int32_t sonetrix_engine_DriverGetName(sonetrix_engine_t *engine, char **name) {
    *name = nullptr;
    if (engine == nullptr)
        return statusInvalid;
    *name = strdup(engineOf(engine)->driver().name());
    return *name != nullptr ? statusOk : statusNoMemory;
}

int32_t sonetrix_clock_sample_timestamp(sonetrix_engine_t *engine, struct timespec *time) {
    *time = timespecOf(engine != nullptr ? engineOf(engine)->driver().blockBegan() : 0);
    return engine != nullptr ? statusOk : statusInvalid;
}

int32_t sonetrix_clock_gettime(struct timespec *time) {
    return clock_gettime(CLOCK_REALTIME, time) == 0 ? statusOk : statusInvalid;
}

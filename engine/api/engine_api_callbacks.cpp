#include "api/engine_handle.h"
#include "api/status.h"

using namespace sonetrix::dev;

void *sonetrix_engine_notify_changes_addCallback(
    sonetrix_engine_t *engine, sonetrix_listCallback_t callback, void *user) {
    if (engine == nullptr || callback == nullptr)
        return nullptr;
    return guardedPointer(
        [&]() -> void * { return engineOf(engine)->notifier().callbacks().add(callback, user).get(); });
}

void sonetrix_engine_notify_changes_rmCallback(sonetrix_engine_t *engine, void *handle) {
    if (engine != nullptr)
        engineOf(engine)->notifier().callbacks().remove(handle);
}

void *sonetrix_engine_addCallbackMeterManager(
    sonetrix_engine_t *engine, sonetrix_module_meters_type type, sonetrix_listCallback_t callback, void *user) {
    if (engine == nullptr || callback == nullptr || !Meters::isType(type))
        return nullptr;
    return guardedPointer(
        [&]() -> void * { return engineOf(engine)->meters().callbacks(type).add(callback, user).get(); });
}

void sonetrix_engine_rmCallbackMeterManager(sonetrix_engine_t *engine, void *handle) {
    if (engine == nullptr)
        return;
    for (const auto type : {SONETRIX_METERS_SLOW, SONETRIX_METERS_FAST})
        engineOf(engine)->meters().callbacks(type).remove(handle);
}

void *sonetrix_engine_addTimer(
    sonetrix_engine_t *engine, int32_t milliseconds, sonetrix_timerCallback_t callback, void *user) {
    if (engine == nullptr)
        return nullptr;
    return guardedPointer([&] { return engineOf(engine)->timers().add(milliseconds, callback, user); });
}

void sonetrix_engine_delTimer(sonetrix_engine_t *engine, void *handle) {
    if (engine != nullptr)
        engineOf(engine)->timers().remove(handle);
}

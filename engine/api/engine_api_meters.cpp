#include "api/engine_handle.h"
#include "api/status.h"

#include <memory>
#include <utility>

using namespace sonetrix::dev;

namespace {

bool valid(const sonetrix_engine_t *engine, sonetrix_module_meters_type type) noexcept {
    return engine != nullptr && Meters::isType(type);
}

/// For the caller; null in place of an empty list.
ListKeyValue *handedOver(ListKeyValue list) {
    return list.empty() ? nullptr : std::make_unique<ListKeyValue>(std::move(list)).release();
}

ListKeyValue *readAsManager(sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type) {
    if (!valid(engine, type) || !engineOf(engine)->meters().hasManager())
        return nullptr;
    return sonetrix_engine_GetLastMeters(engine, module, type);
}

} // namespace

int32_t sonetrix_engine_addDebugMeter(
    sonetrix_engine_t *engine, sonetrix_module_meters_type type, const char *key, const sonetrix_value_t *value) {
    if (!valid(engine, type) || key == nullptr || value == nullptr)
        return statusInvalid;
    return guarded([&] {
        engineOf(engine)->meters().setDebugMeter(type, key, *value);
        return statusOk;
    });
}

int32_t sonetrix_engine_delDebugMeter(sonetrix_engine_t *engine, sonetrix_module_meters_type type, const char *key) {
    if (!valid(engine, type) || key == nullptr)
        return statusInvalid;
    return engineOf(engine)->meters().removeDebugMeter(type, key) ? statusOk : statusNotFound;
}

sonetrix_cListKeyValue_t *sonetrix_engine_GetLastMeters(
    sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type) {
    if (!valid(engine, type))
        return nullptr;
    return guardedPointer(
        [&] { return handedOver(engineOf(engine)->meters().read(type, module != nullptr ? module : "")); });
}

sonetrix_cListKeyValue_t *sonetrix_engine_meterInfoList(sonetrix_engine_t *engine, sonetrix_module_meters_type type) {
    if (!valid(engine, type))
        return nullptr;
    return guardedPointer([&] { return handedOver(engineOf(engine)->meters().descriptions(type)); });
}

int32_t sonetrix_engine_registerMeterManager(sonetrix_engine_t *engine, sonetrix_readMeters_t *read) {
    if (engine == nullptr || read == nullptr)
        return statusInvalid;
    if (!engineOf(engine)->meters().claimManager())
        return statusBusy;
    *read = readAsManager;
    return statusOk;
}

int32_t sonetrix_engine_unregisterMeterManager(sonetrix_engine_t *engine) {
    if (engine == nullptr)
        return statusInvalid;
    return engineOf(engine)->meters().releaseManager() ? statusOk : statusNotFound;
}

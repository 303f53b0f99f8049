#include "api/engine_handle.h"
#include "api/status.h"

using namespace sonetrix::dev;

sonetrix_cListKeyValue_t *sonetrix_engine_GetParams(sonetrix_engine_t *engine, const sonetrix_cListValue_t *keys) {
    if (engine == nullptr || keys == nullptr)
        return nullptr;
    return guardedPointer([&] { return new ListKeyValue(engineOf(engine)->parameters().read(*keys)); });
}

int32_t sonetrix_engine_SetParamsFull(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
    if (engine == nullptr || parameters == nullptr || written == nullptr)
        return statusInvalid;
    return guarded(
        [&] { return engineOf(engine)->parameters().write(*parameters, *written) ? statusOk : statusInvalid; });
}

int32_t sonetrix_engine_SetParamsFullCli(
    sonetrix_engine_t *engine, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
    return sonetrix_engine_SetParamsFull(engine, parameters, written);
}

#pragma once

#include "api/status.h"
#include "engine.h"
#include "forked.h"
#include "sonetrix/engine_api.h"

namespace sonetrix::dev {

/// The C interface's engine handle points to the Engine; null for null.
inline Engine *engineOf(sonetrix_engine_t *handle) noexcept { return reinterpret_cast<Engine *>(handle); }

/// The same for whatever takes a lock or waits: null in a forked child, where a lock may be held for ever and the
/// engine's threads are not.
inline Engine *engineHere(sonetrix_engine_t *handle) noexcept { return isForkedChild() ? nullptr : engineOf(handle); }

/// `guarded(body(engine))`; refused as invalid without an engine or when an argument is not as it must be.
template <class Body> auto withEngine(sonetrix_engine_t *handle, bool valid, Body &&body) noexcept {
    Engine *engine = engineHere(handle);
    const auto whole = [&] { return body(*engine); };
    if (engine == nullptr || !valid)
        return refused<decltype(guarded(whole))>(statusInvalid);
    engine->noteOtherwise();
    return guarded(whole);
}

} // namespace sonetrix::dev

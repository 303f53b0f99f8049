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

/// `body(engine)`, which returns a status, with whatever it throws turned into one; "invalid" without an engine or when
/// an argument is not as it must be.
template <class Body> int32_t withEngine(sonetrix_engine_t *handle, bool valid, Body &&body) noexcept {
    Engine *engine = engineHere(handle);
    if (engine == nullptr || !valid)
        return statusInvalid;
    engine->noteOtherwise();
    return guarded([&] { return body(*engine); });
}

/// The same for a pointer; null in these cases.
template <class Body>
auto pointerWithEngine(sonetrix_engine_t *handle, bool valid, Body &&body) noexcept
    -> decltype(body(*engineOf(handle))) {
    Engine *engine = engineHere(handle);
    if (engine == nullptr || !valid)
        return nullptr;
    engine->noteOtherwise();
    return guardedPointer([&] { return body(*engine); });
}

} // namespace sonetrix::dev

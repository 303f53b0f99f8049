#pragma once

#include "engine.h"
#include "sonetrix/engine_api.h"

namespace sonetrix::dev {

/// The C interface's engine handle points to the Engine; null for null.
inline Engine *engineOf(sonetrix_engine_t *handle) noexcept { return reinterpret_cast<Engine *>(handle); }

inline sonetrix_engine_t *handleOf(Engine *engine) noexcept { return reinterpret_cast<sonetrix_engine_t *>(engine); }

} // namespace sonetrix::dev

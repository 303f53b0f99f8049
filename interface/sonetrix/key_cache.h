#pragma once

#include "python/ref.h"

#include <cstddef>

namespace sonetrix {

// The key as bytes. The first keys of each list come from a small cache: notifications and meters bring the same few
// keys again and again, while a long list would only wash the cache out. `position` counts what was read before.
Ref keyBytes(const char *key, std::size_t position);

// Lets all cached keys go.
void dropKeyCache() noexcept;

} // namespace sonetrix

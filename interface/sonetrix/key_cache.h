#pragma once

#include "python/errors.h"

#include <cstddef>

namespace sonetrix {

constexpr std::size_t cachedKeyPositions = 128; // two for each entry

// The key from the cache, or new and, if it is no long one, in the cache from then on.
Ref cachedKeyBytes(const char *key);

// The key as bytes. The first keys of each list come from a small cache: notifications and meters bring the same few
// keys again and again, while a long list would only wash the cache out. `position` counts what was read before.
inline Ref keyBytes(const char *key, std::size_t position) {
    return position < cachedKeyPositions ? cachedKeyBytes(key) : checked(PyBytes_FromString(key));
}

// Lets all cached keys go.
void dropKeyCache() noexcept;

} // namespace sonetrix

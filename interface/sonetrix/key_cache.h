#pragma once

#include "python/errors.h"

#include <string_view>

namespace sonetrix {

constexpr Py_ssize_t cachedKeysOfDict = 64;

// The key from the cache, or new and, if it is no long one, in the cache from then on.
Ref cachedKeyBytes(std::string_view key);

// The next key of the dict, as bytes. The first keys of each come from a small cache: notifications and meters bring
// the same few again and again, while a long list would only wash the cache out.
inline Ref keyBytes(const char *key, PyObject *dict) {
    return PyDict_Check(dict) && PyDict_GET_SIZE(dict) < cachedKeysOfDict ? cachedKeyBytes(key)
                                                                          : checked(PyBytes_FromString(key));
}

// Lets all cached keys go.
void dropKeyCache() noexcept;

} // namespace sonetrix

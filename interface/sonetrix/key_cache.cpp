#include "key_cache.h"

#include "python/errors.h"

#include <array>
#include <functional>
#include <utility>

namespace sonetrix {

namespace {

constexpr std::size_t longestKey = 64;

// Raw and owned: the interpreter is gone when static objects are destroyed. dropKeyCache() lets them go in time.
std::array<PyObject *, 512> slots{};

} // namespace

Ref cachedKeyBytes(std::string_view key) {
    const auto newBytes = [key] {
        return checked(PyBytes_FromStringAndSize(key.data(), static_cast<Py_ssize_t>(key.size())));
    };
    if (key.size() > longestKey) {
        return newBytes();
    }
    PyObject *&slot = slots[std::hash<std::string_view>()(key) % slots.size()];
    if (slot == nullptr ||
        key != std::string_view(PyBytes_AS_STRING(slot), static_cast<std::size_t>(PyBytes_GET_SIZE(slot)))) {
        Ref::steal(std::exchange(slot, newBytes().release()));
    }
    return Ref::borrow(slot);
}

void dropKeyCache() noexcept {
    for (PyObject *&slot : slots) {
        Ref::steal(std::exchange(slot, nullptr));
    }
}

} // namespace sonetrix

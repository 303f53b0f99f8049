#include "key_cache.h"

#include "python/errors.h"

#include <array>
#include <cstdint>
#include <cstring>

namespace sonetrix {

namespace {

constexpr std::size_t slotCount = 512;
constexpr std::size_t longestKey = 64;

// Raw and owned: the interpreter is gone when static objects are destroyed. dropKeyCache() lets them go in time.
std::array<PyObject *, slotCount> slots{};

// Spread by length and by the key's ends, where module and parameter names differ.
std::size_t slotOf(const char *key, std::size_t length) noexcept {
    std::uint64_t head = 0;
    std::uint64_t tail = 0;
    const std::size_t part = length < sizeof head ? length : sizeof head;
    std::memcpy(&head, key, part);
    std::memcpy(&tail, key + length - part, part);
    const std::uint64_t mixed = (head ^ (tail << 1) ^ length) * 0x9E3779B97F4A7C15ULL;
    return static_cast<std::size_t>(mixed >> 55); // nine bits
}
static_assert(slotCount == 1U << 9);

} // namespace

Ref cachedKeyBytes(const char *key) {
    const std::size_t length = std::strlen(key);
    const auto newBytes = [&] { return checked(PyBytes_FromStringAndSize(key, static_cast<Py_ssize_t>(length))); };
    if (length > longestKey) {
        return newBytes();
    }
    PyObject *&slot = slots[slotOf(key, length)];
    if (slot == nullptr || static_cast<std::size_t>(PyBytes_GET_SIZE(slot)) != length ||
        std::memcmp(PyBytes_AS_STRING(slot), key, length) != 0) {
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

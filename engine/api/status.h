#pragma once

#include <cerrno>
#include <cstdint>
#include <new>
#include <stdexcept>

namespace sonetrix::dev {

/// Status codes of the C functions: 0, or a negated error number.
constexpr int32_t statusOk = 0;
constexpr int32_t statusInvalid = -EINVAL;
constexpr int32_t statusNotFound = -ENOENT;
constexpr int32_t statusNoMemory = -ENOMEM;
constexpr int32_t statusExists = -EEXIST;
constexpr int32_t statusBusy = -EBUSY;
constexpr int32_t statusRange = -ERANGE;
constexpr int32_t statusFailed = -EIO;

/// The border to C: runs `body`, which returns a status, and turns whatever it throws into one.
template <class Body> int32_t guarded(Body &&body) noexcept {
    try {
        return body();
    } catch (const std::bad_alloc &) {
        return statusNoMemory;
    } catch (const std::length_error &) {
        return statusNoMemory;
    } catch (...) {
        return statusInvalid;
    }
}

/// The same for functions that return a pointer, null on failure.
template <class Body> auto guardedPointer(Body &&body) noexcept -> decltype(body()) {
    try {
        return body();
    } catch (...) {
        return nullptr;
    }
}

} // namespace sonetrix::dev

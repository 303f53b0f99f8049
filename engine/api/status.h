#pragma once

#include <cerrno>
#include <cstdint>
#include <new>
#include <stdexcept>
#include <type_traits>

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

/// What a C function returns when it is refused: null in place of a pointer, else a status.
template <class Result> Result refused(int32_t status) noexcept {
    if constexpr (std::is_pointer_v<Result>)
        return nullptr;
    else
        return status;
}

/// The border to C: the result of `body`, a pointer or a status, which is 0 for a body that returns nothing. Whatever
/// it throws becomes a refusal.
template <class Body> auto guarded(Body &&body) noexcept {
    using BodyResult = decltype(body());
    using Result = std::conditional_t<std::is_pointer_v<BodyResult>, BodyResult, int32_t>;
    try {
        if constexpr (std::is_void_v<BodyResult>) {
            body();
            return statusOk;
        } else {
            return Result(body());
        }
    } catch (const std::bad_alloc &) {
        return refused<Result>(statusNoMemory);
    } catch (const std::length_error &) {
        return refused<Result>(statusNoMemory);
    } catch (...) {
        return refused<Result>(statusInvalid);
    }
}

} // namespace sonetrix::dev

#pragma once

#include <cerrno>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

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

/// A request that cannot be met: the status for the caller and the reason for the log.
class Refusal : public std::runtime_error {
public:
    Refusal(int32_t status, const std::string &reason) : std::runtime_error(reason), status_(status) {}

    [[nodiscard]] int32_t status() const noexcept { return status_; }

private:
    int32_t status_;
};

inline std::string inQuotes(std::string_view text) { return '"' + std::string(text) + '"'; }

/// Where something has been thrown: its status. If `what` is there, the log tells of it in a line that this begins
/// ("cannot ...").
int32_t refused(const std::function<std::string()> &what = {}) noexcept;

/// The border to C: the result of `body`, a pointer or a status, which is 0 for a body that returns nothing. Whatever
/// it throws becomes null, or a status; `what` is for `refused`.
template <class Body, class... What> auto guarded(Body &&body, const What &...what) noexcept {
    using Result = decltype(body());
    try {
        if constexpr (std::is_void_v<Result>) {
            body();
            return statusOk;
        } else {
            return body();
        }
    } catch (...) {
        const int32_t status = refused(std::cref(what)...);
        if constexpr (std::is_pointer_v<Result>)
            return Result(nullptr);
        else
            return status;
    }
}

/// Finds among the names that there are the one that was meant by one that there is not. What to append to "there is no
/// such thing": nothing when no name is near.
std::string suggestion(std::string_view given, const std::vector<std::string> &names);

} // namespace sonetrix::dev

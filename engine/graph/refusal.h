#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace sonetrix::dev {

/// A request that cannot be met: the status for the caller and the reason for the log.
class Refusal : public std::runtime_error {
public:
    Refusal(int32_t status, const std::string &reason) : std::runtime_error(reason), status_(status) {}

    [[nodiscard]] int32_t status() const noexcept { return status_; }

private:
    int32_t status_;
};

} // namespace sonetrix::dev

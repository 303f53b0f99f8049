#pragma once

#include "api/status.h"

#include <algorithm>
#include <cstdint>
#include <functional>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sonetrix::dev {

/// A request that cannot be met: the status for the caller and the reason for the log.
class Refusal : public std::runtime_error {
public:
    Refusal(int32_t status, const std::string &reason) : std::runtime_error(reason), status_(status) {}

    [[nodiscard]] int32_t status() const noexcept { return status_; }

private:
    int32_t status_;
};

inline std::string inQuotes(std::string_view text) { return '"' + std::string(text) + '"'; }

/// Carries a request out. What refuses it becomes one line in the log, which `what` begins ("cannot ..."), and a
/// status.
int32_t attempt(const std::function<std::string()> &what, const std::function<void()> &request);

/// Finds among the names that there are the one that somebody meant who gave one that there is not.
class Suggestion {
public:
    explicit Suggestion(std::string_view given)
        : given_(given), best_(std::min(std::max<size_t>(given.size(), 1) - 1, given.size() / 3 + 2)) {}

    void consider(std::string_view candidate);
    /// What to append to "there is no such thing": nothing when no candidate is near.
    [[nodiscard]] std::string text() const { return name_.empty() ? "" : "; did you mean " + inQuotes(name_) + '?'; }

private:
    const std::string_view given_;
    size_t best_; // only what is nearer than that is taken
    std::string name_;
};

} // namespace sonetrix::dev

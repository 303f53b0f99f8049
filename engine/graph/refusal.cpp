#include "refusal.h"

#include "sonetrix/engine_api.h"

#include <numeric>
#include <utility>
#include <vector>

namespace sonetrix::dev {

namespace {

char lower(char character) noexcept {
    return character >= 'A' && character <= 'Z' ? static_cast<char>(character - 'A' + 'a') : character;
}

/// How many characters have to be put in, taken out or changed, upper and lower case being the same.
size_t editDistance(std::string_view from, std::string_view to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t changed = diagonal + (lower(from[i]) == lower(to[j]) ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({changed, row[j] + 1, row[j + 1] + 1});
        }
    }
    return row.back();
}

} // namespace

int32_t attempt(const std::function<std::string()> &what, const std::function<void()> &request) {
    int32_t status = statusFailed;
    std::string reason;
    try {
        request();
        return statusOk;
    } catch (const Refusal &refusal) {
        status = refusal.status();
        reason = refusal.what();
    } catch (const std::bad_alloc &) {
        status = statusNoMemory;
        reason = "out of memory";
    } catch (const std::exception &failure) {
        reason = failure.what();
    }
    // Users made the request: a place in this source would tell them nothing.
    sonetrix_log(SONETRIX_LOG_WARN, "engine", 0, 1, "%s: %s", what().c_str(), reason.c_str());
    return status;
}

void Suggestion::consider(std::string_view candidate) {
    constexpr size_t shortestBeginning = 3;
    const bool begun = given_.size() >= shortestBeginning && candidate.starts_with(given_);
    const size_t distance = begun ? 1 : editDistance(given_, candidate);
    if (distance < best_ || (distance == best_ && candidate < name_)) {
        best_ = distance;
        name_ = candidate;
    }
}

} // namespace sonetrix::dev

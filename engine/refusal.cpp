#include "refusal.h"

#include "sonetrix/engine_api.h"

#include <algorithm>
#include <cctype>
#include <new>
#include <numeric>
#include <utility>

namespace sonetrix::dev {

namespace {

/// How many characters have to be put in, taken out or changed, upper and lower case being the same.
size_t editDistance(std::string_view from, std::string_view to) {
    constexpr auto lower = [](char character) { return std::tolower(static_cast<unsigned char>(character)); };
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

int32_t refused(const std::function<std::string()> &what) noexcept try {
    const auto refuse = [&what](int32_t status, const char *reason) {
        if (what) // users made the request: a place in this source would tell them nothing
            sonetrix_log(SONETRIX_LOG_WARN, "engine", 0, 1, "%s: %s", what().c_str(), reason);
        return status;
    };
    try {
        throw;
    } catch (const Refusal &refusal) {
        return refuse(refusal.status(), refusal.what());
    } catch (const std::bad_alloc &) {
        return refuse(statusNoMemory, "out of memory");
    } catch (const std::exception &failure) {
        return refuse(statusFailed, failure.what());
    }
} catch (...) { // not even for the line
    return statusNoMemory;
}

std::string suggestion(std::string_view given, const std::vector<std::string> &names) {
    constexpr size_t shortestBeginning = 3;
    size_t best = std::min(std::max<size_t>(given.size(), 1) - 1, given.size() / 3 + 2); // only what is nearer is taken
    const std::string *nearest = nullptr;
    for (const std::string &name : names) {
        const bool begun = given.size() >= shortestBeginning && name.starts_with(given);
        const size_t distance = begun ? 1 : editDistance(given, name);
        if (distance < best || (nearest != nullptr && distance == best && name < *nearest)) {
            best = distance;
            nearest = &name;
        }
    }
    return nearest == nullptr ? "" : "; did you mean " + inQuotes(*nearest) + '?';
}

} // namespace sonetrix::dev

#pragma once

namespace sonetrix {

// A base of what lives in one place, like a scope guard.
class NonCopyable {
public:
    NonCopyable() = default;
    NonCopyable(const NonCopyable &) = delete;
    NonCopyable &operator=(const NonCopyable &) = delete;
};

} // namespace sonetrix

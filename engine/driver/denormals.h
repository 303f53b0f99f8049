#pragma once

#if defined(__x86_64__)
#include <immintrin.h>
#endif

namespace sonetrix::dev {

/// Denormals count as zero in the calling thread: a decaying filter must not become a hundred times slower.
inline void flushDenormalsInThisThread() noexcept {
#if defined(__x86_64__)
    constexpr unsigned flushToZero = 0x8000;
    constexpr unsigned denormalsAreZero = 0x0040;
    _mm_setcsr(_mm_getcsr() | flushToZero | denormalsAreZero);
#elif defined(__aarch64__)
    constexpr unsigned long flushToZero = 1UL << 24;
    unsigned long control = 0;
    __asm__ volatile("mrs %0, fpcr" : "=r"(control));
    __asm__ volatile("msr fpcr, %0" : : "r"(control | flushToZero));
#endif
}

} // namespace sonetrix::dev

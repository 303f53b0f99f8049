#pragma once

#include "sonetrix/engine_api.h"

#include <algorithm>
#include <cstddef>
#include <memory>
#include <new>
#include <span>

namespace sonetrix::dev {

/// Samples in the engine's accounted memory, silent at first. Keeps its address for life.
class AudioBuffer {
public:
    explicit AudioBuffer(size_t frames) : data_(static_cast<float *>(sonetrix_malloc(frames * sizeof(float)))) {
        if (!data_)
            throw std::bad_alloc();
        std::fill_n(data_.get(), frames, 0.0F);
    }

    [[nodiscard]] float *data() const noexcept { return data_.get(); }

private:
    struct Free {
        void operator()(float *samples) const noexcept { sonetrix_free(samples); }
    };
    std::unique_ptr<float[], Free> data_;
};

} // namespace sonetrix::dev

#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>
#include <utility>

namespace sonetrix::dev {

/// Memory for the keys, strings and arrays of one list: handed out piece by piece, freed as a whole.
class Arena {
public:
    Arena() noexcept = default;
    Arena(Arena &&other) noexcept { swap(other); }
    Arena &operator=(Arena &&other) noexcept {
        Arena(std::move(other)).swap(*this);
        return *this;
    }
    ~Arena();

    /// Memory that stays where it is until the arena ends. Throws std::bad_alloc.
    std::byte *allocate(size_t size, size_t alignment) {
        const size_t padding = -reinterpret_cast<uintptr_t>(next_) & (alignment - 1);
        std::byte *place = padding + size <= room_ ? next_ + padding : grow(size);
        room_ -= static_cast<size_t>(place - next_) + size;
        next_ = place + size;
        used_ += size;
        return place;
    }
    const void *copy(const void *data, size_t size, size_t alignment) {
        std::byte *place = allocate(size, alignment);
        if (size != 0)
            std::memcpy(place, data, size);
        return place;
    }
    const char *copyText(std::string_view text) {
        auto *copied = reinterpret_cast<char *>(allocate(text.size() + 1, 1));
        std::memcpy(copied, text.data(), text.size());
        copied[text.size()] = '\0';
        return copied;
    }

    /// Notes that a piece of this size is no longer needed; its memory stays taken until the arena ends.
    void discard(size_t size) noexcept { discarded_ += size; }
    [[nodiscard]] bool worthCompacting() const noexcept { return discarded_ > smallWaste && discarded_ > used_ / 2; }

private:
    static constexpr size_t smallWaste = 4096;

    struct Chunk;
    struct Free {
        void operator()(Chunk *chunk) const noexcept { std::free(static_cast<void *>(chunk)); }
    };

    std::byte *grow(size_t size);
    void swap(Arena &other) noexcept;

    std::unique_ptr<Chunk, Free> newest_;
    std::byte *next_ = nullptr;
    size_t room_ = 0;
    size_t used_ = 0;
    size_t discarded_ = 0;
};

} // namespace sonetrix::dev

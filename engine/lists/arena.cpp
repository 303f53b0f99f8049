#include "lists/arena.h"

#include <algorithm>
#include <new>

namespace sonetrix::dev {

namespace {
constexpr size_t smallestChunk = 224;
constexpr size_t largestChunk = size_t{1} << 18;
} // namespace

/// The head of a block of memory; the pieces follow it.
struct alignas(16) Arena::Chunk {
    Chunk *older;
};

Arena::~Arena() {
    while (newest_ != nullptr)
        newest_.reset(newest_->older);
}

// Chunks grow with the arena, so that small lists stay small and large ones need few allocations.
std::byte *Arena::grow(size_t size) {
    const size_t wanted = std::max(size, std::clamp(used_, smallestChunk, largestChunk));
    void *memory = wanted > PTRDIFF_MAX - sizeof(Chunk) ? nullptr : std::malloc(sizeof(Chunk) + wanted);
    if (memory == nullptr)
        throw std::bad_alloc();
    newest_.reset(::new (memory) Chunk{newest_.release()});
    next_ = static_cast<std::byte *>(memory) + sizeof(Chunk);
    room_ = wanted;
    return next_;
}

void Arena::swap(Arena &other) noexcept {
    std::swap(newest_, other.newest_);
    std::swap(next_, other.next_);
    std::swap(room_, other.room_);
    std::swap(used_, other.used_);
    std::swap(discarded_, other.discarded_);
}

} // namespace sonetrix::dev

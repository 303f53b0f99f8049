// Makes the interpreter run out of memory at a chosen allocation, through its own allocator hooks. The interpreter is
// found in the process: nothing of its headers is needed but the layout of one documented record.

#include "record.h"

namespace {

struct Allocator { // PyMemAllocatorEx
    void *context;
    void *(*allocate)(void *context, std::size_t size);
    void *(*allocateZeroed)(void *context, std::size_t count, std::size_t size);
    void *(*reallocate)(void *context, void *memory, std::size_t size);
    void (*free)(void *context, void *memory);
};

Allocator originals[2];
int64_t allocations = 0;
int64_t failing = -1;

bool fails() { return !sonetrix::record::inHook && allocations++ == failing; }

Allocator &original(void *context) { return *static_cast<Allocator *>(context); }

void *allocate(void *context, std::size_t size) {
    Allocator &next = original(context);
    return fails() ? nullptr : next.allocate(next.context, size);
}
void *allocateZeroed(void *context, std::size_t count, std::size_t size) {
    Allocator &next = original(context);
    return fails() ? nullptr : next.allocateZeroed(next.context, count, size);
}
void *reallocate(void *context, void *memory, std::size_t size) {
    Allocator &next = original(context);
    return fails() ? nullptr : next.reallocate(next.context, memory, size);
}
void freeMemory(void *context, void *memory) { original(context).free(original(context).context, memory); }

// Of the domains that are used with the interpreter lock held: PYMEM_DOMAIN_MEM and PYMEM_DOMAIN_OBJ.
void access(const char *function, int index, Allocator *allocator) {
    reinterpret_cast<void (*)(int domain, Allocator *)>(dlsym(RTLD_DEFAULT, function))(index + 1, allocator);
}

} // namespace

extern "C" {

// From now on the allocation of this number fails, counted from 0; none does when it is negative. To be called, like
// all of these, with the interpreter lock held.
void record_failAllocation(int64_t number) {
    allocations = 0;
    failing = number;
    for (int index = 0; index < 2; ++index) {
        access("PyMem_GetAllocator", index, &originals[index]);
        Allocator hook = {&originals[index], allocate, allocateZeroed, reallocate, freeMemory};
        access("PyMem_SetAllocator", index, &hook);
    }
}

// Puts the interpreter's allocators back and gives the number of allocations since.
int64_t record_endAllocationFailure() {
    for (int index = 0; index < 2; ++index)
        access("PyMem_SetAllocator", index, &originals[index]);
    return allocations;
}

} // extern "C"

/* Put in front of the C library: lets a thread, by its name, run out of memory for some allocations. */
#define _GNU_SOURCE
#include <pthread.h>
#include <stdatomic.h>
#include <stddef.h>
#include <string.h>

extern void *__libc_malloc(size_t size);

static char starving[16];
static atomic_int left;

void starve(const char *thread, int allocations) {
    strncpy(starving, thread, sizeof starving - 1);
    left = allocations;
}

int starve_left(void) { return left; }

void *malloc(size_t size) {
    char name[16];
    if (left > 0 && pthread_getname_np(pthread_self(), name, sizeof name) == 0 && strcmp(name, starving) == 0) {
        --left;
        return NULL;
    }
    return __libc_malloc(size);
}

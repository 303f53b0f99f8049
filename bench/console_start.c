/*
 * Opens the console on the terminal that it is given, with the stub engine behind it.
 *   console_start LIBRARY     prints "constructing <nanoseconds of CLOCK_MONOTONIC>" right before the constructor
 */
#include "stub_engine.h"

#include <dlfcn.h>
#include <inttypes.h>
#include <stdio.h>

typedef sonetrix_cliModule_t *(*Constructor)(sonetrix_cListKeyValue_t *, void *);

int main(int count, char **arguments) {
    void *library = count == 2 ? dlopen(arguments[1], RTLD_NOW | RTLD_LOCAL) : NULL;
    if (library == NULL) {
        fprintf(stderr, "console_start LIBRARY: %s\n", count == 2 ? dlerror() : "no library given");
        return 2;
    }
    Constructor construct;
    *(void **)&construct = dlsym(library, "sonetrix_engineCliCostructor");
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    printf("constructing %" PRId64 "\n", (int64_t)time.tv_sec * 1000000000 + time.tv_nsec);
    fflush(stdout);
    sonetrix_cliModule_t *module = construct(NULL, NULL);
    module->start(module);
    module->run(module);
    module->destroy(module);
    return 0;
}

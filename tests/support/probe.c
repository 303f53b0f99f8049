/* A LADSPA plugin that ends a host which is ever in two of these functions at once, shows what its control was when it
 * was activated, and plays its control's root; and one without a label. Preloaded, an allocation that fails. */

#define _GNU_SOURCE
#include <ladspa.h>
#include <math.h>
#include <pthread.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

extern void *__libc_malloc(size_t size);

char starving[16];

void *malloc(size_t size) {
    char name[sizeof starving] = "";
    if (*starving != '\0')
        pthread_getname_np(pthread_self(), name, sizeof name);
    if (*name == '\0' || strcmp(name, starving) != 0)
        return __libc_malloc(size);
    *starving = '\0';
    return NULL;
}

enum { CONTROL, ACTIVATED, OUTPUT, PORTS };
struct Probe {
    LADSPA_Data *port[PORTS];
    LADSPA_Data activated;
};

static void visit(void) {
    static atomic_int inside;
    if (atomic_fetch_add(&inside, 1) != 0)
        abort();
    usleep(2000);
    atomic_fetch_sub(&inside, 1);
}
static LADSPA_Handle instantiate(const LADSPA_Descriptor *descriptor, unsigned long rate) {
    (void)descriptor, (void)rate;
    visit();
    return calloc(1, sizeof(struct Probe));
}
static void connect(LADSPA_Handle handle, unsigned long port, LADSPA_Data *data) {
    ((struct Probe *)handle)->port[port] = data;
}
static void activate(LADSPA_Handle handle) {
    struct Probe *probe = handle;
    probe->activated = *probe->port[CONTROL];
}
static void run(LADSPA_Handle handle, unsigned long frames) {
    struct Probe *probe = handle;
    *probe->port[ACTIVATED] = probe->activated;
    for (unsigned long i = 0; i < frames; ++i)
        probe->port[OUTPUT][i] = sqrtf(*probe->port[CONTROL]);
}
static void cleanup(LADSPA_Handle handle) {
    visit();
    free(handle);
}

static const LADSPA_PortDescriptor kinds[PORTS] = {LADSPA_PORT_INPUT | LADSPA_PORT_CONTROL,
    LADSPA_PORT_OUTPUT | LADSPA_PORT_CONTROL, LADSPA_PORT_OUTPUT | LADSPA_PORT_AUDIO};
static const char *const names[PORTS] = {"Control (ms)", "Activated", "Output"};
static const LADSPA_PortRangeHint hints[PORTS] = {{LADSPA_HINT_BOUNDED_ABOVE | LADSPA_HINT_DEFAULT_1, 0, 10}};
static const LADSPA_Descriptor plugins[] = {{1, "probe", 0, "A probe", "", "", PORTS, kinds, names, hints, NULL,
                                                instantiate, connect, activate, run, NULL, NULL, NULL, cleanup},
    {.UniqueID = 2}};

const LADSPA_Descriptor *ladspa_descriptor(unsigned long index) {
    visit();
    return index < 2 ? &plugins[index] : NULL;
}

/* The floor of a console's start: the interpreter with the same settings, the same modules, a prompt, on the same
 * clock. bare_start MODULE... */
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include <inttypes.h>
#include <time.h>

int main(int count, char **arguments) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    printf("constructing %" PRId64 "\n", (int64_t)time.tv_sec * 1000000000 + time.tv_nsec);
    fflush(stdout);
    PyConfig config;
    PyConfig_InitPythonConfig(&config);
    config.parse_argv = 0;
    config.interactive = 1;
    config.write_bytecode = 0;
    PyConfig_SetBytesString(&config, &config.program_name, "engine");
    Py_InitializeFromConfig(&config);
    PyConfig_Clear(&config);
    for (int index = 1; index < count; ++index) {
        if (PyImport_ImportModule(arguments[index]) == NULL) {
            PyErr_Print();
            return 1;
        }
    }
    printf("engine> ");
    fflush(stdout);
    return getchar() == 'q';
}

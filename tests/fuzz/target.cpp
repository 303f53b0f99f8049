// A libFuzzer program: the interpreter with the module built in. What an input means is up to the target's Python
// module, whose function `run` gets the bytes; an exception that comes out of it is a finding.

#include "module_init.h"
#include "python/ref.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

namespace {

using sonetrix::Ref;

PyObject *runFunction = nullptr;

[[noreturn]] void fail() {
    PySys_SetObject("stderr", PySys_GetObject("__stderr__"));
    PyErr_Print();
    std::abort();
}

void startInterpreter() {
    PyPreConfig allocation;
    PyPreConfig_InitIsolatedConfig(&allocation);
    allocation.utf8_mode = 1;
    allocation.allocator = PYMEM_ALLOCATOR_MALLOC; // the interpreter's own would hide faults
    PyConfig config;
    PyConfig_InitIsolatedConfig(&config);
    config.inspect = 1; // as the console has it
    config.write_bytecode = 0;
    if (PyStatus_Exception(Py_PreInitialize(&allocation)) != 0 ||
        PyImport_AppendInittab("sonetrix", PyInit_sonetrix) != 0 ||
        PyStatus_Exception(Py_InitializeFromConfig(&config)) != 0) {
        std::abort();
    }
    PyConfig_Clear(&config);
}

// Cycles that nobody collected would look like leaks.
void collect() { PyGC_Collect(); }

} // namespace

// What an input asks for beyond reason it does not get.
extern "C" const char *__asan_default_options() {
    return "allocator_may_return_null=1:max_allocation_size_mb=64:malloc_context_size=8";
}

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    setenv("SONETRIX_SOURCE", FUZZ_SOURCE, 1);
    setenv("SONETRIX_BUILD", FUZZ_BUILD, 1);
    startInterpreter();
    if (PyRun_SimpleString("import sys\nsys.path[:0] = ['" FUZZ_SOURCE "/tests', '" FUZZ_SOURCE "/tests/fuzz']") != 0) {
        std::abort();
    }
    const Ref target = Ref::steal(PyImport_ImportModule(FUZZ_TARGET));
    runFunction = target ? PyObject_GetAttrString(target.get(), "run") : nullptr;
    if (runFunction == nullptr) {
        fail();
    }
    std::atexit(collect);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size) {
    const Ref result = Ref::steal(
        PyObject_CallFunction(runFunction, "y#", reinterpret_cast<const char *>(data), static_cast<Py_ssize_t>(size)));
    if (!result) {
        fail();
    }
    return 0;
}

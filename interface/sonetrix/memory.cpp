// The class `memory`: inspection of the engine's real-time memory.

#include "monitor.h"
#include "python/gil.h"
#include "python/types.h"

namespace sonetrix {

namespace {

Ref inspect() {
    print(checked(PyUnicode_FromString("RT Memory Inspect:")).get(), nullptr); // flushed: the engine prints past Python
    unlocked(sonetrix_memory_rt_inspect);
    return none();
}

constexpr Method functions[] = {
    {"inspect", "()", "Prints the engine's account of its real-time memory on standard output.", function<inspect>},
};

} // namespace

void addMemory(PyObject *module) {
    Ref type = newClass<PyObject>(
        module, "sonetrix.memory", 0, {slot(Py_tp_doc, "Utility class to inspect the engine's real-time memory.")});
    addFunctions(type.get(), functions);
    checked(PyModule_AddType(module, asType(type)));
}

} // namespace sonetrix

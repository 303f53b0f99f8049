// The class `memory`: inspection of the engine's real-time memory.

#include "module.h"
#include "python/gil.h"
#include "python/types.h"

namespace sonetrix {

namespace {

Ref inspect() {
    // Flushed: the engine prints past Python's buffer.
    Ref print = moduleGlobal("print"_id);
    Ref arguments = checked(Py_BuildValue("(s)", "RT Memory Inspect:"));
    Ref keywords = checked(Py_BuildValue("{sO}", "flush", Py_True));
    checked(PyObject_Call, print.get(), arguments.get(), keywords.get());
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
    addStaticFunctions(type.get(), functions);
    checked(PyModule_AddType(module, asType(type)));
}

} // namespace sonetrix

// The class `engine`: what it consists of.

#include "engine.h"

#include "python/types.h"

namespace sonetrix {

namespace {
OriginalClass originalClass;
}

bool isOriginalEngine() { return originalClass.isUnchanged(heldType(Held::engineClass)); }

void addEngine(PyObject *module) {
    Ref type = newClass<PyObject>(module, "sonetrix.engine", 0,
        {slot(Py_tp_doc,
            "The running audio engine. All methods are static: call them on the class, engine.isRunning().\n\n"
            "A method that needs the engine raises Exception \"engine not initialized\" when the process has none.")});
    checked(PyObject_SetAttrString, type.get(), "METER_SLOW", checked(PyLong_FromLong(SONETRIX_METERS_SLOW)).get());
    checked(PyObject_SetAttrString, type.get(), "METER_FAST", checked(PyLong_FromLong(SONETRIX_METERS_FAST)).get());
    for (const std::span<const Method> functions : {engineStatusFunctions, engineParameterFunctions,
             engineModuleFunctions, engineMeterFunctions, engineGraphFunctions, engineTimerFunctions}) {
        addFunctions(type.get(), functions);
    }
    checked(PyModule_AddType(module, asType(type)));
    originalClass.remember(asType(type));
    hold(Held::engineClass, std::move(type));
}

} // namespace sonetrix

// The class `notifyMeters`: meters, as the engine delivers them.

#include "callback_classes.h"
#include "engine.h"

namespace sonetrix {

namespace {

void meters(sonetrix_cListKeyValue_t *list, void *user) {
    static constexpr Notification notification = {
        .lockOrderError = "GIL LOCK ORDER ERROR! meters callback invoked with the GIL already acquired",
        .failure = "Exception whilee invoking meter callback registered from Python",
        .reportName = "sonetrix.notifyMeters.meters",
    };
    notify(notification, list, user);
}

constexpr Method constructor = {"notifyMeters", "(callback, meters_type: int = 1)",
    "This utility class is used to invoke any method when meters are notified\n"
    "by the engine.\n\n"
    "notifyMeters(callback, meters_type=1): the callback is called with a dict of the meters, on a thread of the\n"
    "engine, for as long as the object lives. meters_type is engine.METER_SLOW or engine.METER_FAST.\n"
    "ValueError unless the callback has exactly one parameter.",
    {}};

Ref make(PyTypeObject *type, Arguments arguments) {
    PyObject *callback = arguments[0];
    const sonetrix_module_meters_type metersType = toMetersType(arguments[1]);
    return newNotification(
        type, sonetrix_engine_rmCallbackMeterManager, callback, [callback, metersType](sonetrix_engine_t *engine) {
            return sonetrix_engine_addCallbackMeterManager(engine, metersType, meters, callback);
        });
}

} // namespace

void addNotifyMeters(PyObject *module) {
    addCallbackClass(module, Held::notifyMetersClass, constructor, construct<constructor, make>);
}

} // namespace sonetrix

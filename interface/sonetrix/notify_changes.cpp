// The class `notifyChanges`: parameter changes, as the engine notifies them.

#include "callback_classes.h"

namespace sonetrix {

namespace {

void change(sonetrix_cListKeyValue_t *list, void *user) {
    static constexpr Notification notification = {
        .lockOrderError = "GIL LOCK ORDER ERROR! notify callback invoked with the GIL already acquired",
        .failure = "Exception whilee invoking notification callback registered from Python",
        .reportName = "sonetrix.notifyChanges.change",
    };
    notify(notification, list, user);
}

constexpr Method constructor = {"notifyChanges", "(callback)",
    "This utility class is used to invoke any method when parameters change are notified\n"
    "by the engine.\n\n"
    "notifyChanges(callback): the callback is called with a dict of the changed parameters, on a thread of the\n"
    "engine, for as long as the object lives. ValueError unless the callback has exactly one parameter.",
    {}};

Ref make(PyTypeObject *type, Arguments arguments) {
    PyObject *callback = arguments[0];
    return newNotification(
        type, sonetrix_engine_notify_changes_rmCallback, callback, [callback](sonetrix_engine_t *engine) {
            return sonetrix_engine_notify_changes_addCallback(engine, change, callback);
        });
}

} // namespace

void addNotifyChanges(PyObject *module) {
    addCallbackClass(module, Held::notifyChangesClass, constructor, construct<constructor, make>);
}

} // namespace sonetrix

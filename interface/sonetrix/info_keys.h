// The dicts that getModuleInfos() and getUsageInfo() make, and that dot() and usageInfo() read: their keys.
#pragma once

#include "python/names.h"

namespace sonetrix {

namespace info_key {
inline Name name("name");
inline Name type("type");
inline Name link("link");
inline Name source("src");
inline Name sink("sink");
inline Name library("library");
inline Name configuration("configuration");
inline Name param("param");
inline Name absolute("absolute");
inline Name relative("relative");
inline Name processId("processId");
} // namespace info_key

// info[key]
inline Ref item(PyObject *info, const Name &key) { return checked(PyObject_GetItem(info, key.get())); }

} // namespace sonetrix

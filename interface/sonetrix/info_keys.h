// The dicts that getModuleInfos() and getUsageInfo() make, and that dot() and usageInfo() read: their keys.
#pragma once

#include "python/interned_string.h"

namespace sonetrix {

namespace info_key {
inline InternedString name("name");
inline InternedString type("type");
inline InternedString link("link");
inline InternedString source("src");
inline InternedString sink("sink");
inline InternedString library("library");
inline InternedString configuration("configuration");
inline InternedString param("param");
inline InternedString absolute("absolute");
inline InternedString relative("relative");
inline InternedString processId("processId");
} // namespace info_key

// info[key]
inline Ref item(PyObject *info, const InternedString &key) { return checked(PyObject_GetItem(info, key.get())); }

} // namespace sonetrix

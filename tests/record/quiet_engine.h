// What is done without a hook where it is not the engine's own function: nothing happens by itself, every parameter
// counts as written, there are no modules to go over, and the engine says that it runs and every driver that it is
// loaded.
#pragma once

#include "record.h"

namespace sonetrix::record {

struct Silent { // it would go to the console, or to the system's log
    template <typename... Arguments> static void call(Arguments... /*unused*/) {}
};
template <> struct Real<sonetrix_log_LogString> : Silent {};
template <> struct Real<sonetrix_log_time> : Silent {};
template <> struct Real<sonetrix_log_file_time> : Silent {};
template <> struct Real<sonetrix_log_filename> : Silent {};
template <> struct Real<sonetrix_log_syslog> : Silent {};
template <> struct Real<sonetrix_log_journald> : Silent {};
template <> struct Real<sonetrix_memory_rt_inspect> : Silent {};
template <> struct Real<sonetrix_engine_IsRunning> {
    static int32_t call(sonetrix_engine_t * /*engine*/) { return 1; }
};
template <> struct Real<sonetrix_engine_DriverIsLoaded> {
    static int32_t call(const void *reference) { return reference ? 1 : 0; }
};
template <> struct Real<sonetrix_engine_ForEachModuleSafe> {
    static int32_t call(sonetrix_engine_t * /*engine*/, sonetrix_moduleCallback_t /*callback*/, void * /*user*/) {
        return 0;
    }
};
struct Writing { // everything
    static int32_t call(
        sonetrix_engine_t * /*engine*/, const sonetrix_cListKeyValue_t *parameters, sonetrix_cListKeyValue_t *written) {
        sonetrix_cListKeyValue_t *const copy = next<sonetrix_keyValueListDeepCopy>(parameters);
        next<sonetrix_keyValueListMerge>(written, copy);
        next<sonetrix_keyValueListDestroy>(copy);
        return 0;
    }
};
template <> struct Real<sonetrix_engine_SetParamsFull> : Writing {};
template <> struct Real<sonetrix_engine_SetParamsFullCli> : Writing {};
template <> struct Real<sonetrix_engine_registerMeterManager> {
    static int32_t call(sonetrix_engine_t * /*engine*/, sonetrix_readMeters_t *read) {
        *read = readMeters;
        return 0;
    }
};
template <> struct Real<readMeters> : Real<sonetrix_engine_GetLastMeters> {};
template <> struct Real<sonetrix_engine_notify_changes_addCallback> {
    static void *call(sonetrix_engine_t * /*engine*/, sonetrix_listCallback_t callback, void *user) {
        return addRegistration(Kind::Changes, callback, user);
    }
};
template <> struct Real<sonetrix_engine_addCallbackMeterManager> {
    static void *call(sonetrix_engine_t * /*engine*/,
        sonetrix_module_meters_type type,
        sonetrix_listCallback_t callback,
        void *user) {
        return addRegistration(type == SONETRIX_METERS_SLOW ? Kind::SlowMeters : Kind::FastMeters, callback, user);
    }
};
template <> struct Real<sonetrix_engine_addTimer> {
    static void *call(
        sonetrix_engine_t * /*engine*/, int32_t /*milliseconds*/, sonetrix_timerCallback_t callback, void *user) {
        return addRegistration(
            Kind::Timer, [callback](auto *, void *its) { callback(its); }, user);
    }
};
struct Removal {
    static void call(sonetrix_engine_t * /*engine*/, void *handle) { removeRegistration(handle); }
};
template <> struct Real<sonetrix_engine_notify_changes_rmCallback> : Removal {};
template <> struct Real<sonetrix_engine_rmCallbackMeterManager> : Removal {};
template <> struct Real<sonetrix_engine_delTimer> : Removal {};
template <auto function> struct Destruction {
    template <typename List> static void call(List *list) {
        Recorder::instance().ended(nameOf<function>, list,
            [](const void *ended) { next<function>(static_cast<List *>(const_cast<void *>(ended))); });
    }
};
template <> struct Real<sonetrix_valueListDestroy> : Destruction<sonetrix_valueListDestroy> {};
template <> struct Real<sonetrix_keyValueListDestroy> : Destruction<sonetrix_keyValueListDestroy> {};

} // namespace sonetrix::record

// The functions that do something else than the engine's own where nothing is scripted, or something more.
#pragma once

#include "control.h"
#include "record.h"
#include "registrations.h"

namespace sonetrix::record {

template <auto function, typename List> void destroyList(const Call &call, List *list) {
    const auto destroy = [](const void *ended) { next<function>(static_cast<List *>(const_cast<void *>(ended))); };
    if (list && Recorder::instance().ended(call.name(), list, destroy))
        next<function>(list);
}
template <> struct Real<sonetrix_valueListDestroy> {
    static constexpr auto call = destroyList<sonetrix_valueListDestroy, sonetrix_cListValue_t>;
};
template <> struct Real<sonetrix_keyValueListDestroy> {
    static constexpr auto call = destroyList<sonetrix_keyValueListDestroy, sonetrix_cListKeyValue_t>;
};

// A reading whose callback is called as the script says.
template <typename Record> struct Reading {
    using Callback = int32_t (*)(const Record *, void *);

    Script script;
    Callback callback;
    void *user;
    bool stopped = false;

    static int32_t read(const Record *record, void *reading) { return static_cast<Reading *>(reading)->read(record); }
    int32_t read(const Record *record) {
        if (stopped)
            return 0;
        const LockGivenUp without(script.givesLockUp);
        const int32_t status = callback(record, script.user ? script.user : user);
        stopped = status != 0 && script.stopsOnError;
        return status;
    }
};
// What a reading goes over is not changed by a thread that takes the lock meanwhile.
template <typename List> class Unchanged {
public:
    Unchanged(const Call &call, const List *list) : call_(call), list_(list), before_(literal(list)) {}
    ~Unchanged() {
        if (literal(list_) != before_)
            Recorder::instance().violate(std::string(call_.name()) + " goes over a list that is changed meanwhile");
    }
    Unchanged(const Unchanged &) = delete;
    Unchanged &operator=(const Unchanged &) = delete;

private:
    const Call &call_;
    const List *list_;
    std::string before_;
};
template <> struct Real<sonetrix_valueListForEach> {
    static int32_t call(const Call &call, sonetrix_cListValue_t *list, sonetrix_valueCallback_t callback, void *user) {
        lastReading = {.value = callback, .keyValue = nullptr};
        Reading<sonetrix_value_t> reading{call.script(), callback, user};
        const Unchanged<sonetrix_cListValue_t> list_is(call, reading.script.givesLockUp ? list : nullptr);
        return next<sonetrix_valueListForEach>(list, reading.read, &reading);
    }
};
template <> struct Real<sonetrix_keyValueListForEach> {
    static int32_t call(
        const Call &call, sonetrix_cListKeyValue_t *list, sonetrix_keyValueCallback_t callback, void *user) {
        lastReading = {.value = nullptr, .keyValue = callback};
        Reading<sonetrix_keyValue_t> reading{call.script(), callback, user};
        const Unchanged<sonetrix_cListKeyValue_t> list_is(call, reading.script.givesLockUp ? list : nullptr);
        return next<sonetrix_keyValueListForEach>(list, reading.read, &reading);
    }
};
template <> struct Real<sonetrix_engine_ForEachModuleSafe> {
    static int32_t call(const Call &call, sonetrix_engine_t *engine, sonetrix_moduleCallback_t callback, void *user) {
        Reading<sonetrix_module_t> reading{call.script(), callback, user};
        if (!scriptedModules)
            return next<sonetrix_engine_ForEachModuleSafe>(engine, reading.read, &reading);
        for (const sonetrix_module_t *module : *scriptedModules)
            reading.read(module);
        return 0;
    }
};

// Everything counts as written.
struct Writing {
    static int32_t call(const Call & /*call*/,
        sonetrix_engine_t * /*engine*/,
        const sonetrix_cListKeyValue_t *parameters,
        sonetrix_cListKeyValue_t *written) {
        appendAll(written, parameters);
        return 0;
    }
};
template <> struct Real<sonetrix_engine_SetParamsFull> : Writing {};
template <> struct Real<sonetrix_engine_SetParamsFullCli> : Writing {};

template <> struct Real<sonetrix_engine_ModuleGetStartParameter> {
    static int32_t call(const Call & /*call*/,
        sonetrix_engine_t *engine,
        const sonetrix_module_t *module,
        char **library,
        sonetrix_cListKeyValue_t **configuration) {
        const auto status = next<sonetrix_engine_ModuleGetStartParameter>(engine, module, library, configuration);
        Recorder::instance().began(status == 0 ? *configuration : nullptr, false);
        return status;
    }
};

inline void *add(const Call &call, Kind kind, Callback callback, void *user) {
    return addRegistration(kind, callback, user, call.script().callsInside);
}
template <> struct Real<sonetrix_engine_notify_changes_addCallback> {
    static void *call(const Call &call, sonetrix_engine_t * /*engine*/, sonetrix_listCallback_t callback, void *user) {
        return add(call, Kind::Changes, callback, user);
    }
};
template <> struct Real<sonetrix_engine_addCallbackMeterManager> {
    static void *call(const Call &call,
        sonetrix_engine_t * /*engine*/,
        sonetrix_module_meters_type type,
        sonetrix_listCallback_t callback,
        void *user) {
        return add(call, type == SONETRIX_METERS_SLOW ? Kind::SlowMeters : Kind::FastMeters, callback, user);
    }
};
template <> struct Real<sonetrix_engine_addTimer> {
    static void *call(const Call &call,
        sonetrix_engine_t * /*engine*/,
        int32_t /*milliseconds*/,
        sonetrix_timerCallback_t callback,
        void *user) {
        return add(call, Kind::Timer, callback, user);
    }
};
struct Removal {
    static void call(const Call & /*call*/, sonetrix_engine_t * /*engine*/, void *handle) {
        removeRegistration(handle);
    }
};
template <> struct Real<sonetrix_engine_notify_changes_rmCallback> : Removal {};
template <> struct Real<sonetrix_engine_rmCallbackMeterManager> : Removal {};
template <> struct Real<sonetrix_engine_delTimer> : Removal {};

// A driver counts as loaded although the engine has not been started.
template <> struct Real<sonetrix_engine_DriverIsLoaded> {
    static int32_t call(const Call & /*call*/, const void *reference) { return reference ? 1 : 0; }
};

template <> struct Real<sonetrix_engine_RequestStop> {
    static void call(const Call & /*call*/, sonetrix_engine_t *engine) {
        next<sonetrix_engine_RequestStop>(engine);
        if (auto *const hook = stopRequestHook.load())
            hook();
    }
};

// The read function that the engine hands out is recorded, too.
inline std::atomic<sonetrix_readMeters_t> engineReadMeters = nullptr;
inline sonetrix_cListKeyValue_t *readMeters(
    sonetrix_engine_t *engine, const char *module, sonetrix_module_meters_type type) {
    const Call call("readMeters", literal(engine) + "," + literal(module) + "," + literal(type) + ",");
    sonetrix_cListKeyValue_t *list = nullptr;
    if (!call.null()) {
        const Script script = call.script();
        list = script.answers() ? newList<sonetrix_cListKeyValue_t>(script.list)
                                : engineReadMeters.load()(engine, module, type);
    }
    Recorder::instance().began(list, false);
    return list;
}
template <> struct Real<sonetrix_engine_registerMeterManager> {
    static int32_t call(const Call &call, sonetrix_engine_t *engine, sonetrix_readMeters_t *read) {
        *read = nullptr;
        if (call.null())
            return 0;
        const int32_t status = next<sonetrix_engine_registerMeterManager>(engine, read);
        engineReadMeters = *read;
        *read = status == 0 ? readMeters : nullptr;
        return status;
    }
};

template <> struct Real<sonetrix_valueInitS> {
    static void call(const Call & /*call*/, sonetrix_value_t *value, const char *text) {
        Recorder::instance().count(Values, 1);
        next<sonetrix_valueInitS>(value, text);
    }
};
template <> struct Real<sonetrix_valueDeinit> {
    static void call(const Call & /*call*/, sonetrix_value_t *value) {
        Recorder::instance().count(Values, value->type == SONETRIX_VALUE_STRING ? -1 : 0);
        next<sonetrix_valueDeinit>(value);
    }
};
template <> struct Real<sonetrix_malloc> {
    static void *call(const Call & /*call*/, size_t size) {
        Recorder::instance().count(Blocks, 1);
        return next<sonetrix_malloc>(size);
    }
};
template <> struct Real<sonetrix_free> {
    static void call(const Call & /*call*/, void *memory) {
        Recorder::instance().count(Blocks, memory ? -1 : 0);
        next<sonetrix_free>(memory);
    }
};

} // namespace sonetrix::record

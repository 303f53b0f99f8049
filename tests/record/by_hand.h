// The functions that do something else than the engine's own where nothing is scripted, or something more.
#pragma once

#include "control.h"
#include "record.h"
#include "registrations.h"

#include <tuple>

namespace sonetrix::record {

template <auto function> struct Destruction {
    template <typename List> static void call(const Call &call, List *list) {
        Recorder::instance().ended(call.name(), list,
            [](const void *ended) { next<function>(static_cast<List *>(const_cast<void *>(ended))); });
    }
};
template <> struct Real<sonetrix_valueListDestroy> : Destruction<sonetrix_valueListDestroy> {};
template <> struct Real<sonetrix_keyValueListDestroy> : Destruction<sonetrix_keyValueListDestroy> {};

// An iteration that calls back as the script says.
template <typename Record> class Iteration {
public:
    using Callback = int32_t (*)(const Record *, void *);

    Iteration(const Call &call, Callback callback, void *user)
        : call_(call), callback_(callback), user_(call.setting(User) ? call.script().pointer<void>(User) : user) {}

    static int32_t step(const Record *record, void *iteration) {
        auto &self = *static_cast<Iteration *>(iteration);
        return self.stopped_ ? 0 : self.step(record);
    }
    int32_t step(const Record *record) {
        const int64_t every = call_.setting(GivesLockUp);
        const LockGivenUp without(every && ++count_ % every == 0);
        const int32_t status = callback_(record, user_);
        stopped_ = status != 0 && call_.setting(StopsOnError);
        return status;
    }

private:
    const Call &call_;
    Callback callback_;
    void *user_;
    int64_t count_ = 0;
    bool stopped_ = false;
};

template <auto function> struct Reading {
    template <typename List, typename Callback>
    static int32_t call(const Call &call, List *list, Callback callback, void *user) {
        lastReading = {};
        std::get<Callback>(lastReading) = callback;
        const bool changeable = call.setting(GivesLockUp) != 0;
        const std::string before = changeable ? literal(list) : "";
        using Record = std::remove_const_t<std::remove_pointer_t<decltype(firstArgument(callback))>>;
        Iteration<Record> iteration(call, callback, user);
        const int32_t status = next<function>(list, iteration.step, &iteration);
        if (changeable && literal(list) != before)
            Recorder::instance().violate(std::string(call.name()) + " goes over a list that is changed meanwhile");
        return status;
    }
    template <typename Record> static Record firstArgument(int32_t (*)(Record, void *));
};
template <> struct Real<sonetrix_valueListForEach> : Reading<sonetrix_valueListForEach> {};
template <> struct Real<sonetrix_keyValueListForEach> : Reading<sonetrix_keyValueListForEach> {};
template <> struct Real<sonetrix_engine_ForEachModuleSafe> {
    static int32_t call(const Call &call, sonetrix_engine_t *engine, sonetrix_moduleCallback_t callback, void *user) {
        Iteration<sonetrix_module_t> iteration(call, callback, user);
        if (!scriptedModules)
            return next<sonetrix_engine_ForEachModuleSafe>(engine, iteration.step, &iteration);
        for (const sonetrix_module_t *module : *scriptedModules)
            iteration.step(module, &iteration);
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
    template <typename... Arguments> static int32_t call(const Call & /*call*/, Arguments... arguments) {
        const int32_t status = next<sonetrix_engine_ModuleGetStartParameter>(arguments...);
        sonetrix_cListKeyValue_t **const configuration = std::get<3>(std::tuple(arguments...));
        Recorder::instance().began(status == 0 ? *configuration : nullptr, false);
        return status;
    }
};

// Callbacks are registered in the layer. They come last but one, their user data last.
struct Addition {
    template <typename... Arguments> static void *call(const Call &call, Arguments... arguments) {
        const auto all = std::tuple(arguments...);
        constexpr size_t last = sizeof...(arguments) - 1;
        Kind kind = Kind::Changes;
        if constexpr (std::is_same_v<std::tuple_element_t<1, decltype(all)>, const sonetrix_module_meters_type>) {
            kind = std::get<1>(all) == SONETRIX_METERS_SLOW ? Kind::SlowMeters : Kind::FastMeters;
        } else if constexpr (last == 3) {
            kind = Kind::Timer;
        }
        return addRegistration(kind, std::get<last - 1>(all), std::get<last>(all), call.setting(CallsInside));
    }
};
struct Removal {
    static void call(const Call & /*call*/, sonetrix_engine_t * /*engine*/, void *handle) {
        removeRegistration(handle);
    }
};
template <> struct Real<sonetrix_engine_notify_changes_addCallback> : Addition {};
template <> struct Real<sonetrix_engine_addCallbackMeterManager> : Addition {};
template <> struct Real<sonetrix_engine_addTimer> : Addition {};
template <> struct Real<sonetrix_engine_notify_changes_rmCallback> : Removal {};
template <> struct Real<sonetrix_engine_rmCallbackMeterManager> : Removal {};
template <> struct Real<sonetrix_engine_delTimer> : Removal {};

template <> struct Real<sonetrix_malloc> {
    static void *call(const Call & /*call*/, size_t size) {
        ++blockCount;
        return next<sonetrix_malloc>(size);
    }
};
template <> struct Real<sonetrix_free> {
    static void call(const Call & /*call*/, void *memory) {
        blockCount -= memory ? 1 : 0;
        next<sonetrix_free>(memory);
    }
};

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
    if (!call.null())
        list = call.list() ? newList<sonetrix_cListKeyValue_t>(call.list())
                           : engineReadMeters.load()(engine, module, type);
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

} // namespace sonetrix::record

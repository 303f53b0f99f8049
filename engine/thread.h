#pragma once

#include "thread_signals.h"

#include <pthread.h>
#include <stop_token>
#include <thread>
#include <utility>

namespace sonetrix::dev {

/// A thread of the engine that runs `body(std::stop_token)`. Nothing here stands in the way of a callback that ends the
/// thread by pthread_exit.
template <class Body> std::jthread engineThread(const char *name, Body body) {
    return std::jthread([name, body = std::move(body)](std::stop_token stop) {
        blockSignalsInThisThread();
        pthread_setname_np(pthread_self(), name);
        body(std::move(stop));
    });
}

} // namespace sonetrix::dev

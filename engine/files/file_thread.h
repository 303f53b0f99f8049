#pragma once

#include "thread.h"

#include <chrono>
#include <functional>
#include <utility>

namespace sonetrix::dev {

/// Calls a function every few milliseconds on a thread of its own, until it ends. This is how file input and output
/// keep up with the audio thread, which must not even wake somebody.
class FileThread {
public:
    static constexpr std::chrono::milliseconds period{10};

    explicit FileThread(std::function<void()> work) {
        thread_.start("sonetrix-file", [this, work = std::move(work)](const std::stop_token &stop) {
            work();
            thread_.pause(stop, Thread::Clock::now() + period);
        });
    }

private:
    Thread thread_;
};

} // namespace sonetrix::dev

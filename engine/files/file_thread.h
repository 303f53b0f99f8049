#pragma once

#include "thread.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stop_token>
#include <thread>
#include <utility>

namespace sonetrix::dev {

/// Calls a function every few milliseconds on a thread of its own, until it ends. This is how file input and output
/// keep up with the audio thread, which must not even wake somebody.
class FileThread {
public:
    static constexpr std::chrono::milliseconds period{10};

    explicit FileThread(std::function<void()> work)
        : thread_(engineThread("sonetrix-file", [work = std::move(work)](const std::stop_token &stop) {
              std::mutex mutex;
              std::condition_variable_any pause;
              std::unique_lock lock(mutex);
              while (!stop.stop_requested()) {
                  work();
                  pause.wait_for(lock, stop, period, [] { return false; });
              }
          })) {}

private:
    std::jthread thread_;
};

} // namespace sonetrix::dev

// The console thread, and how a stop request reaches it.
//
// A stop request sends SIGINT to the console thread once. That alone can be lost: a signal that lands between the
// console's look at its flag and its blocking read is noticed only when the read returns. So a request also starts a
// timer whose signal (SIGURG, which does nothing wherever nobody handles it) interrupts the console thread's system
// calls every few milliseconds until the console has ended. Its Python-level handler does the rest:
//
//   at the prompt       it raises KeyboardInterrupt at once, whoever handles SIGINT
//   in running code     it raises KeyboardInterrupt three seconds after the request and three seconds after that, for
//                       code that SIGINT did not reach (that of the start included) or that swallowed it, and
//                       SystemExit for code that swallows those, too (pdb, code.interact); never when the engine
//                       keeps SIGINT for itself. Three seconds are for a script that tidies up
//   showing an error    the same: what is shown shall be whole
//
// What is still on its way when the console ends is discarded then, so that it cannot strike the clean-up.
#pragma once

#include <sonetrix/engine_api.h>

#include <chrono>
#include <csignal>
#include <ctime>
#include <mutex>
#include <optional>

namespace sonetrix::cli {

// There is one interpreter and so one console per process.
class ConsoleThread {
public:
    static ConsoleThread &instance() noexcept;

    // The console thread's own, around the life of the interpreter. `keepSigint`: the engine keeps SIGINT for itself.
    void open(bool keepSigint) noexcept;
    void close() noexcept;
    // Installs the Python-level handler; needs the interpreter.
    void installHandler() noexcept;

    // While one of these lives, a stop request interrupts what the console thread does.
    class Activity {
    public:
        enum class Kind { start, run };
        explicit Activity(Kind kind) noexcept;
        ~Activity();
        Activity(const Activity &) = delete;
        Activity &operator=(const Activity &) = delete;

    private:
        sigset_t previousMask_{};
    };

    // While one of these lives, its thread shows an exception: without Python code, but not at the prompt either.
    class Display {
    public:
        Display() noexcept;
        ~Display();
        Display(const Display &) = delete;
        Display &operator=(const Display &) = delete;

    private:
        bool outer_;
    };

    // For any thread: the request is in the record already. Never waits for the console.
    void interrupt() noexcept;
    // Whether a request has come during the present activity.
    bool isInterrupted() noexcept;

    enum class Interruption { none, keyboardInterrupt, systemExit };
    // For the signal handler, on the console thread: what to raise, given that Python code is running or that the
    // console is at its prompt.
    Interruption nextInterruption(bool codeIsRunning) noexcept;
    // Whether a SystemExit without a code may be such an interruption, and so no exit that anybody has asked for.
    bool hasRaisedSystemExit() noexcept;

private:
    using Clock = std::chrono::steady_clock;

    void begin(Activity::Kind kind) noexcept;
    void end() noexcept;
    void startTicking(bool on) noexcept;
    void sendSigint() noexcept;

    std::mutex mutex_; // held for the time of a signal, never while anything waits for the console
    pthread_t thread_{};
    bool active_ = false;    // start or run is in progress
    bool recorded_ = false;  // run is in progress: thread_ is the console thread
    bool requested_ = false; // a stop request has come during this activity
    bool sigintSent_ = false;
    bool keepSigint_ = false;
    Clock::time_point nextRaise_;
    int raised_ = 0; // in running code, during this activity
    std::optional<timer_t> timer_;
};

} // namespace sonetrix::cli

// A stop request, and how it reaches the console thread.
//
// `stop` sets the record's flag and, while `run` is in progress, sends SIGINT to the console thread, once. What running
// code makes of that is its own affair. But a signal that lands between a look at what has come and a blocking system
// call is noticed when the call returns, which may be never. So until `run` ends a timer's signal interrupts the
// thread's system calls twice a second, whereupon Python looks again; where nothing has come, it goes on waiting.
//
// The read at the console's own prompt ends whoever handles SIGINT: during it the timer's signal comes every ten
// milliseconds, and has a Python-level handler that ends the read. The signal is SIGURG, which by its nature may come
// without a cause. We handle it during `run` only, if nobody else does, and at the prompt in any case.
//
// A SIGINT that is still on its way when `run` ends is discarded there: it cannot strike the clean-up.
#pragma once

#include "python/ref.h"

#include <csignal>
#include <initializer_list>

namespace sonetrix::cli {

// Blocks signals on the calling thread (SIG_BLOCK), or lets them reach it (SIG_UNBLOCK), whatever mask the engine gave
// it, for as long as this lives.
class SignalMask : NonCopyable {
public:
    SignalMask(int how, std::initializer_list<int> signals) noexcept;
    ~SignalMask();

private:
    sigset_t previous_{};
};

// There is one interpreter and so one console per process. All but sendStopRequest() is for the console thread.

// Around the life of the interpreter.
void openStopRequests() noexcept;
void closeStopRequests() noexcept;

// For any thread, the request being in the record already. Never waits for the console.
void sendStopRequest() noexcept;

// While one of these lives, `run` is in progress.
class RunInProgress : NonCopyable {
public:
    explicit RunInProgress(bool interactive) noexcept;
    ~RunInProgress();
};

// While one of these lives, the console reads at its own prompt. Made and ended with the interpreter lock.
class PromptRead : NonCopyable {
public:
    PromptRead() noexcept;
    ~PromptRead();

private:
    Ref previousHandler_;
    struct sigaction previousAction_ {};
};

// Whether a request has come during the present run.
bool stopIsRequested() noexcept;
// Whether a KeyboardInterrupt at the interactive console is, for all that is known, the request's own.
bool stopHasInterruptedConsole() noexcept;

} // namespace sonetrix::cli

// A stop request, and how it reaches the console thread.
//
// `stop` sets the record's flag and, while `run` is in progress, sends SIGINT to the console thread, once. What running
// code makes of that is its own affair; nothing follows. Only the read at the console's own prompt needs more: a signal
// that lands between the look at the flag and the blocking read is noticed when the read returns, which may be never.
// So while that read is in progress a request also starts a timer, whose signal interrupts the thread's system calls
// every ten milliseconds; its Python-level handler ends the read, whoever handles SIGINT. The signal is SIGURG, which
// does nothing wherever nobody handles it, and is handled by us during that read only.
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

#include "program/termination_signals.h"

#include "thread.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <system_error>
#include <unistd.h>

namespace sonetrix::dev {

namespace {

constexpr unsigned char endOfThread = 0;

std::atomic<int> handlerPipe{-1};

// A signal that the process directs at its own thread only interrupts that thread: so the console is woken for a stop.
void onSignal(int number, siginfo_t *info, void *) {
    if (info->si_code == SI_TKILL && info->si_pid == ::getpid())
        return;
    const int saved = errno;
    const auto byte = static_cast<unsigned char>(number);
    [[maybe_unused]] const ssize_t written = ::write(handlerPipe, &byte, 1);
    errno = saved;
}

void handle(int number) {
    struct sigaction action {};
    action.sa_sigaction = onSignal;
    action.sa_flags = SA_SIGINFO; // no SA_RESTART: a blocked read has to return
    sigemptyset(&action.sa_mask);
    ::sigaction(number, &action, nullptr);
}

// In a child that a script forks, signals have their usual effect.
void onFork() {
    for (const int number : {SIGTERM, SIGHUP, SIGINT}) {
        struct sigaction current {};
        if (::sigaction(number, nullptr, &current) == 0 && (current.sa_flags & SA_SIGINFO) != 0 &&
            current.sa_sigaction == onSignal)
            std::signal(number, SIG_DFL);
    }
}

bool isIgnored(int number) {
    struct sigaction current {};
    return ::sigaction(number, nullptr, &current) == 0 && current.sa_handler == SIG_IGN;
}

} // namespace

TerminationSignals::TerminationSignals(bool withInterrupt, std::function<void()> requested)
    : requested_(std::move(requested)) {
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0)
        throw std::system_error(errno, std::generic_category(), "pipe");
    readEnd_ = FileDescriptor(ends[0]);
    writeEnd_ = FileDescriptor(ends[1]);
    ::fcntl(writeEnd_.get(), F_SETFL, O_NONBLOCK);
    handlerPipe = writeEnd_.get();
    ::pthread_atfork(nullptr, nullptr, onFork);
    thread_ = std::thread(&TerminationSignals::threadMain, this);
    handle(SIGTERM);
    if (!isIgnored(SIGHUP)) // as under nohup
        handle(SIGHUP);
    if (withInterrupt)
        handle(SIGINT);
}

TerminationSignals::~TerminationSignals() {
    [[maybe_unused]] const ssize_t written = ::write(writeEnd_.get(), &endOfThread, 1);
    thread_.join();
    handlerPipe = -1;
}

void TerminationSignals::endAtOnce() {
    received_ = true;
    handle(SIGINT);
}

void TerminationSignals::threadMain() {
    blockTerminationSignals();
    for (;;) {
        unsigned char number = endOfThread;
        const ssize_t got = ::read(readEnd_.get(), &number, 1);
        if (got < 0 && errno == EINTR)
            continue;
        if (got != 1 || number == endOfThread)
            return;
        if (received_.exchange(true))
            ::_exit(status_.load().value_or(128 + number));
        requested_();
    }
}

} // namespace sonetrix::dev

#include "signal_watch.h"

#include <thread>

#include <pthread.h>
#include <unistd.h>

namespace velstream::tool {

SignalWatch::SignalWatch(Waker& waker) : waker_(waker)
{
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    // Before any other thread starts, so that all of them inherit it.
    pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    std::signal(SIGPIPE, SIG_IGN); // a server that goes away must not end the process
    std::thread([this] { watch(); }).detach();
}

void SignalWatch::watch()
{
    int signal = 0;
    sigwait(&signals_, &signal);
    is_asked_ = true;
    waker_.wake();
    sigwait(&signals_, &signal);
    _exit(128 + signal);
}

} // namespace velstream::tool

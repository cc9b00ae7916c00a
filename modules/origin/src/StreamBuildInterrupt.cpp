#include "Log.h"
#include "StreamBuild.h"
#include "StreamBuildRegistry.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <mutex>
#include <pthread.h>
#include <semaphore.h>
#include <thread>

namespace Quorvis::VelStream {

namespace {

/// How long the signal handler waits for the worker. It never does when the thread that it interrupted holds a lock
/// that the worker needs: then the handler leaves, and the worker goes on behind it.
constexpr long kHandlerBoundMs = 200;
constexpr long kPollNs = 1'000'000;

void end_last_started_pipeline()
{
    const ElementPtr pipeline = last_started_pipeline();
    if (!pipeline) return;
    VEL_LOG_INFO("Received SIGINT signal, will send EOS to pipeline.");
    send_end_of_stream(pipeline.get());
    VEL_LOG_WARN("Sending EOS to pipeline completed.");
}

// What a signal interrupts may hold any lock, the allocator's, the log's and GStreamer's included. So all that takes
// one is done by a thread of its own, which lives as long as the process.
sem_t interrupts; // posted once a signal
std::atomic<bool> has_worker{false};
std::atomic<unsigned> asked{0};
std::atomic<unsigned> answered{0};
static_assert(std::atomic<bool>::is_always_lock_free && std::atomic<unsigned>::is_always_lock_free);

void answer_interrupts()
{
    pthread_setname_np(pthread_self(), "vel-interrupt"); // for who looks at the threads of a process
    while (true) {
        if (sem_wait(&interrupts) != 0) continue; // a debugger's or a tracer's stop interrupts it
        end_last_started_pipeline();
        answered.fetch_add(1, std::memory_order_release);
    }
}

void start_worker()
{
    static std::once_flag once;
    std::call_once(once, [] {
        sem_init(&interrupts, 0, 0);
        // The thread inherits the mask: a signal that came to the worker would wait for itself.
        sigset_t all;
        sigset_t former;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &former);
        std::thread(answer_interrupts).detach();
        pthread_sigmask(SIG_SETMASK, &former, nullptr);
        has_worker.store(true, std::memory_order_release);
    });
}

} // namespace

void handle_sigint(int)
{
    running.store(false, std::memory_order_release);
    if (!has_worker.load(std::memory_order_acquire)) return end_last_started_pipeline();
    // From here on nothing but what a signal handler may call.
    const int former_errno = errno;
    const unsigned number = asked.fetch_add(1, std::memory_order_relaxed) + 1;
    sem_post(&interrupts);
    for (long waited = 0; waited < kHandlerBoundMs; ++waited) {
        // The difference, since both numbers wrap.
        if (static_cast<int>(answered.load(std::memory_order_acquire) - number) >= 0) break;
        const timespec slice{0, kPollNs};
        nanosleep(&slice, nullptr);
    }
    errno = former_errno;
}

void install_sigint_handler()
{
    start_worker();
    std::signal(SIGINT, handle_sigint);
}

} // namespace Quorvis::VelStream

// GLib's locks are futexes of its own, and GStreamer counts references with atomics in code that is not instrumented:
// ThreadSanitizer sees neither, and would call whatever is handed over through them a race. These stand before the
// libraries' functions of the same names and tell it what each of them orders; then they call the real one. What the
// application's callbacks and this project's own threads do without such an order is reported.
#include <gst/gst.h>
#include <sanitizer/tsan_interface.h>

#include <dlfcn.h>

#undef g_object_ref // a macro that keeps the argument's type

namespace {

template <typename Function>
Function* next(const char* name)
{
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

/// The real function behind one of this file's.
#define REAL(name)                                                                                                     \
    ([] {                                                                                                              \
        static auto* const real = next<decltype(::name)>(#name);                                                       \
        return real;                                                                                                   \
    }())

/// An atomic change of an object's count orders what is before it with what comes after another one.
void order(void* object)
{
    __tsan_acquire(object);
    __tsan_release(object);
}

struct PoolTask {
    GFunc function;
    gpointer user_data;
};

void run_pool_task(gpointer data, gpointer user_data)
{
    const auto* task = static_cast<const PoolTask*>(user_data);
    __tsan_acquire(data);
    task->function(data, task->user_data);
}

} // namespace

extern "C" {

#define ORDERED_LOCK(kind, lock, try_lock, unlock)                                                                     \
    void lock(kind* mutex)                                                                                             \
    {                                                                                                                  \
        REAL(lock)(mutex);                                                                                             \
        __tsan_acquire(mutex);                                                                                         \
    }                                                                                                                  \
    gboolean try_lock(kind* mutex)                                                                                     \
    {                                                                                                                  \
        const gboolean is_locked = REAL(try_lock)(mutex);                                                              \
        if (is_locked) __tsan_acquire(mutex);                                                                          \
        return is_locked;                                                                                              \
    }                                                                                                                  \
    void unlock(kind* mutex)                                                                                           \
    {                                                                                                                  \
        __tsan_release(mutex);                                                                                         \
        REAL(unlock)(mutex);                                                                                           \
    }

ORDERED_LOCK(GMutex, g_mutex_lock, g_mutex_trylock, g_mutex_unlock)
ORDERED_LOCK(GRecMutex, g_rec_mutex_lock, g_rec_mutex_trylock, g_rec_mutex_unlock)
ORDERED_LOCK(GRWLock, g_rw_lock_writer_lock, g_rw_lock_writer_trylock, g_rw_lock_writer_unlock)
ORDERED_LOCK(GRWLock, g_rw_lock_reader_lock, g_rw_lock_reader_trylock, g_rw_lock_reader_unlock)

void g_cond_wait(GCond* cond, GMutex* mutex)
{
    __tsan_release(mutex);
    REAL(g_cond_wait)(cond, mutex);
    __tsan_acquire(mutex);
}

gboolean g_cond_wait_until(GCond* cond, GMutex* mutex, gint64 end_time)
{
    __tsan_release(mutex);
    const gboolean is_signalled = REAL(g_cond_wait_until)(cond, mutex, end_time);
    __tsan_acquire(mutex);
    return is_signalled;
}

GThreadPool* g_thread_pool_new(GFunc function, gpointer user_data, gint max_threads, gboolean exclusive, GError** error)
{
    auto* task = new PoolTask{function, user_data}; // as long as the pool, which nobody tells the end of
    return REAL(g_thread_pool_new)(run_pool_task, task, max_threads, exclusive, error);
}

gboolean g_thread_pool_push(GThreadPool* pool, gpointer data, GError** error)
{
    __tsan_release(data);
    return REAL(g_thread_pool_push)(pool, data, error);
}

gpointer gst_object_ref(gpointer object)
{
    order(object);
    return REAL(gst_object_ref)(object);
}

void gst_object_unref(gpointer object)
{
    order(object);
    REAL(gst_object_unref)(object);
}

gpointer g_object_ref(gpointer object)
{
    order(object);
    return REAL(g_object_ref)(object);
}

void g_object_unref(gpointer object)
{
    order(object);
    REAL(g_object_unref)(object);
}

GstMiniObject* gst_mini_object_ref(GstMiniObject* object)
{
    order(object);
    return REAL(gst_mini_object_ref)(object);
}

void gst_mini_object_unref(GstMiniObject* object)
{
    order(object);
    REAL(gst_mini_object_unref)(object);
}

gboolean gst_bus_post(GstBus* bus, GstMessage* message)
{
    __tsan_release(bus);
    return REAL(gst_bus_post)(bus, message);
}

GstMessage* gst_bus_timed_pop_filtered(GstBus* bus, GstClockTime timeout, GstMessageType types)
{
    GstMessage* message = REAL(gst_bus_timed_pop_filtered)(bus, timeout, types);
    __tsan_acquire(bus);
    return message;
}

GstMessage* gst_bus_pop(GstBus* bus)
{
    GstMessage* message = REAL(gst_bus_pop)(bus);
    __tsan_acquire(bus);
    return message;
}

} // extern "C"

#include "StreamBuildSplice.h"

#include <gst/app/gstappsrc.h>

#include <system_error>
#include <unordered_map>
#include <utility>

namespace Quorvis::VelStream {

namespace {

std::once_flag g_gst_init_once;
std::mutex g_streams_mutex; // guards g_streams
// Never destroyed: a stream that nobody stopped may still run while the process ends.
auto& g_streams = *new std::unordered_map<std::string, std::shared_ptr<StreamContext>>;

void ensure_gst_initialized()
{
    std::call_once(g_gst_init_once, [] { gst_init(nullptr, nullptr); });
}

/// @return false when the id is taken.
bool register_stream(const std::shared_ptr<StreamContext>& context)
{
    const std::lock_guard lock(g_streams_mutex);
    return g_streams.emplace(context->stream_id, context).second;
}

/// Takes the id back, unless it is another stream's by now.
void unregister_stream(const std::shared_ptr<StreamContext>& context)
{
    const std::lock_guard lock(g_streams_mutex);
    const auto found = g_streams.find(context->stream_id);
    if (found != g_streams.end() && found->second == context) g_streams.erase(found);
}

/// Registers the stream and starts its thread as one step for whoever wants to join the thread.
int launch_worker(const std::shared_ptr<StreamContext>& context)
{
    const std::lock_guard lock(context->worker_mutex);
    if (!register_stream(context)) return kSpliceAlreadyStarted;
    try {
        context->worker = std::thread([context] { run_splice_worker(context); });
    } catch (const std::system_error&) {
        unregister_stream(context); // the machine has no thread left
        return kSpliceInternal;
    }
    return kSpliceOk;
}

int wait_for_startup(StreamContext& context)
{
    std::unique_lock lock(context.mutex);
    context.startup_cv.wait(lock, [&] { return context.startup_done; });
    return context.startup_result;
}

void join_worker(StreamContext& context)
{
    const std::lock_guard lock(context.worker_mutex);
    if (context.worker.joinable()) context.worker.join();
}

} // namespace

std::shared_ptr<StreamContext> find_splice_stream(const std::string& stream_id)
{
    const std::lock_guard lock(g_streams_mutex);
    const auto found = g_streams.find(stream_id);
    return found == g_streams.end() ? nullptr : found->second;
}

ElementPtr appsrc_of(StreamContext& context)
{
    const std::lock_guard lock(context.mutex);
    return share(context.appsrc);
}

MainLoopPtr loop_of(StreamContext& context)
{
    const std::lock_guard lock(context.mutex);
    return MainLoopPtr(context.loop ? g_main_loop_ref(context.loop) : nullptr);
}

int start_splice_stream(std::string stream_id, std::function<int8_t(const Image&)>& callback)
{
    ensure_gst_initialized();
    if (stream_id.empty() || !callback) return kSpliceBadArgument;

    const auto context = std::make_shared<StreamContext>();
    context->stream_id = std::move(stream_id);
    context->callback = std::move(callback);
    if (const int result = launch_worker(context); result != kSpliceOk) return result;

    const int result = wait_for_startup(*context);
    if (result != kSpliceOk) {
        unregister_stream(context);
        join_worker(*context);
    }
    return result;
}

int stop_splice_stream(std::string stream_id)
{
    std::shared_ptr<StreamContext> context;
    {
        const std::lock_guard lock(g_streams_mutex);
        const auto found = g_streams.find(stream_id);
        if (found == g_streams.end()) return kSpliceUnknownStream;
        context = std::move(found->second);
        g_streams.erase(found);
    }
    if (!context) return kSpliceInternal;

    context->stopping.store(true, std::memory_order_release);
    if (const ElementPtr appsrc = appsrc_of(*context)) gst_app_src_end_of_stream(GST_APP_SRC(appsrc.get()));
    // A loop that does not run yet forgets this; the worker looks at `stopping` once it does.
    if (const MainLoopPtr loop = loop_of(*context)) g_main_loop_quit(loop.get());
    // The worker waits for this very callback before it ends.
    if (!is_in_splice_callback(*context)) join_worker(*context);
    return kSpliceOk;
}

} // namespace Quorvis::VelStream

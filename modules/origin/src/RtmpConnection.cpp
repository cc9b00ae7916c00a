#include "RtmpConnection.h"

#include "Handles.h"

#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <ios>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <thread>

namespace Quorvis::VelStream {

namespace {

using Clock = std::chrono::steady_clock;
using Flag = std::shared_ptr<std::atomic<bool>>;

constexpr std::chrono::milliseconds kPoll{5};
constexpr std::chrono::milliseconds kHangUpBound{300};

bool is_at_work(GstPad* pad)
{
    return gst_pad_get_task_state(pad) == GST_TASK_STARTED;
}

GstPadProbeReturn end_pad(GstPad* pad, GstPadProbeInfo*, gpointer is_ended)
{
    **static_cast<Flag*>(is_ended) = true;
    const PadPtr peer(gst_pad_get_peer(pad));
    if (peer) gst_pad_send_event(peer.get(), gst_event_new_eos());
    return GST_PAD_PROBE_REMOVE;
}

/// What a thread of this process is called, as GStreamer names those that push from a pad.
std::string thread_name_of(GstElement* source)
{
    constexpr std::size_t kLongestName = 15; // the kernel's
    return (std::string(GST_OBJECT_NAME(source)) + ":src").substr(0, kLongestName);
}

struct AwaitedSocket {
    int socket;
    int direction; ///< That is waited for, as shutdown() takes it.
};

/// What a thread waits for, from the kernel's "number argument argument ..." of the call it is in. Neither the elements
/// nor their library tell it.
std::optional<AwaitedSocket> socket_awaited_by(const std::filesystem::path& thread)
{
    std::ifstream call(thread / "syscall");
    long number = -1;
    int socket = -1;
    if (!(call >> number >> std::hex >> socket)) return std::nullopt;
    if (number == SYS_recvfrom || number == SYS_connect) return AwaitedSocket{socket, SHUT_RD};
    if (number == SYS_sendto) return AwaitedSocket{socket, SHUT_RDWR};
    return std::nullopt;
}

/// Has the call return in which a thread waits for a socket. What is still said to a server that was listened to goes
/// out.
/// @return false when it was in no such call
bool wake(const std::filesystem::path& thread)
{
    const std::optional<AwaitedSocket> awaited = socket_awaited_by(thread);
    if (awaited) shutdown(awaited->socket, awaited->direction);
    return awaited.has_value();
}

constexpr const char* kThreads = "/proc/self/task";

bool wake_thread_called(const std::string& name)
{
    std::error_code error; // threads that end meanwhile are no reason to throw
    std::filesystem::directory_iterator thread(kThreads, error);
    for (; !error && thread != std::filesystem::directory_iterator(); thread.increment(error)) {
        std::string its_name;
        std::getline(std::ifstream(thread->path() / "comm"), its_name);
        if (its_name == name && wake(thread->path())) return true;
    }
    return false;
}

GQuark starting_thread()
{
    static const GQuark quark = g_quark_from_static_string("velstream-starting-thread");
    return quark;
}

/// The pipeline that a source is in, however deep in it; null for a source that has left it.
ElementPtr pipeline_of(GstElement* source)
{
    ElementPtr element(GST_ELEMENT(gst_object_ref(source)));
    while (element && !GST_IS_PIPELINE(element.get()))
        element.reset(GST_ELEMENT(gst_object_get_parent(GST_OBJECT(element.get()))));
    return element;
}

/// The element whose thread works in a sink: the muxer before it.
ElementPtr feeder_of(GstElement* sink)
{
    const PadPtr pad(gst_element_get_static_pad(sink, "sink"));
    const PadPtr peer(pad ? gst_pad_get_peer(pad.get()) : nullptr);
    return ElementPtr(peer ? gst_pad_get_parent_element(peer.get()) : nullptr);
}

/// A sink whose thread is busy with anything but the connection is left alone: it comes down by itself.
void hang_up_sink(GstElement* sink)
{
    const ElementPtr feeder = feeder_of(sink);
    const auto deadline = Clock::now() + kHangUpBound;
    while (feeder && wake_thread_called(thread_name_of(feeder.get())) && Clock::now() < deadline)
        std::this_thread::sleep_for(kPoll);
}

/// By its type: the factory of an element may be gone by the time that its pipeline goes down.
bool is_of_type(const GstElement* element, const char* type)
{
    const GType known = g_type_from_name(type); // once an element of it has been made
    return known != G_TYPE_INVALID && g_type_is_a(G_OBJECT_TYPE(element), known);
}

bool is_rtmp_sink(const GstElement* element)
{
    return is_of_type(element, "GstRTMPSink");
}

void hang_up_element(const GValue* value, gpointer)
{
    auto* element = GST_ELEMENT(g_value_get_object(value));
    if (is_rtmp_source(element)) hang_up(element);
    if (is_rtmp_sink(element)) hang_up_sink(element);
}

} // namespace

bool is_rtmp_source(const GstElement* element)
{
    return is_of_type(element, "GstRTMPSrc");
}

bool end_with_next_data(GstElement* source)
{
    constexpr std::chrono::milliseconds kBound{500};
    const PadPtr pad(gst_element_get_static_pad(source, "src"));
    const Flag is_ended = std::make_shared<std::atomic<bool>>(false);
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, end_pad, new Flag(is_ended),
                      [](gpointer flag) { delete static_cast<Flag*>(flag); });
    const auto deadline = Clock::now() + kBound;
    while (is_at_work(pad.get()) && Clock::now() < deadline)
        std::this_thread::sleep_for(kPoll);
    return *is_ended;
}

bool hang_up(GstElement* source)
{
    const PadPtr pad(gst_element_get_static_pad(source, "src"));
    const std::string thread = thread_name_of(source);
    const auto deadline = Clock::now() + kHangUpBound;
    while (is_at_work(pad.get())) {
        if (Clock::now() >= deadline) return false;
        wake_thread_called(thread);
        std::this_thread::sleep_for(kPoll);
    }
    return true;
}

StartingThread::StartingThread(GstElement* pipeline) : pipeline_(pipeline)
{
    g_object_set_qdata(G_OBJECT(pipeline_), starting_thread(), GINT_TO_POINTER(gettid()));
}

StartingThread::~StartingThread()
{
    g_object_set_qdata(G_OBJECT(pipeline_), starting_thread(), nullptr);
}

void give_up_connecting(GstElement* source)
{
    const ElementPtr pipeline = pipeline_of(source);
    const int thread = pipeline ? GPOINTER_TO_INT(g_object_get_qdata(G_OBJECT(pipeline.get()), starting_thread())) : 0;
    if (thread != 0) wake(std::filesystem::path(kThreads) / std::to_string(thread));
}

void hang_up_rtmp(GstElement* pipeline)
{
    const IteratorPtr elements(gst_bin_iterate_recurse(GST_BIN(pipeline)));
    while (gst_iterator_foreach(elements.get(), hang_up_element, nullptr) == GST_ITERATOR_RESYNC)
        gst_iterator_resync(elements.get());
}

} // namespace Quorvis::VelStream

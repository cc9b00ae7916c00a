#include "RtspPush.h"

#include "ElementTools.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string_view>

namespace Quorvis::VelStream {

namespace {

using EventPtr = std::unique_ptr<GstEvent, MiniObjectReleaser>;

/// How long a push waits for the server's answer to its end.
constexpr std::chrono::milliseconds kCloseBound{500};

// ---- the end of RTCP ----

bool has_event(GstPad* pad, GstEventType type)
{
    const EventPtr event(gst_pad_get_sticky_event(pad, type, 0));
    return event != nullptr;
}

/// The end of RTP makes the session say goodbye over RTCP, on another thread, and behind that goodbye it ends RTCP, but
/// only if it finds its RTP pad at the end of stream by then. The pad is marked so when the event that is the cause of
/// all this returns. With bad luck the goodbye is faster, RTCP never ends, and nor does the push. So a packet of RTCP
/// lets the end of RTP pass first.
GstPadProbeReturn on_rtcp_packet(GstPad* rtcp, GstPadProbeInfo*, gpointer)
{
    const ElementPtr session(gst_pad_get_parent_element(rtcp));
    const PadPtr rtp(session ? gst_element_get_static_pad(session.get(), "send_rtp_sink") : nullptr);
    const PadPtr upstream(rtp ? gst_pad_get_peer(rtp.get()) : nullptr);
    if (!upstream || !has_event(upstream.get(), GST_EVENT_EOS)) return GST_PAD_PROBE_OK;
    GST_PAD_STREAM_LOCK(rtp.get());
    GST_PAD_STREAM_UNLOCK(rtp.get());
    return GST_PAD_PROBE_OK;
}

void on_session_pad(GstElement*, GstPad* pad, gpointer)
{
    if (std::string_view(GST_OBJECT_NAME(pad)) != "send_rtcp_src") return;
    gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, on_rtcp_packet, nullptr, nullptr);
}

void on_element(GstBin*, GstBin*, GstElement* element, gpointer)
{
    GstElementFactory* factory = gst_element_get_factory(element);
    if (!factory || std::string_view(GST_OBJECT_NAME(factory)) != "rtpsession") return;
    g_signal_connect_data(element, "pad-added", G_CALLBACK(on_session_pad), nullptr, nullptr, GConnectFlags{});
}

// ---- the end of the session ----

/// Where a push stands on its way down. The stock client sends its requests on a thread of its own and takes back one
/// that waits when the next one comes: going down without a pause it often leaves without a TEARDOWN, and always when
/// its PAUSE has been answered at once, since the thread listens to the server by then and is not called away from it.
/// So the thread is held behind its PAUSE until the TEARDOWN is asked for, and READY is reached when that is through.
class Session {
public:
    void hold_requests() { set(is_held_, true); }
    void release_requests() { set(is_held_, false); }
    void note_open() { set(is_closed_, false); }
    void note_closed() { set(is_closed_, true); }

    /// On the client's thread, behind a request.
    void wait_while_held()
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kCloseBound, [this] { return !is_held_; });
    }

    void wait_for_close()
    {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, kCloseBound, [this] { return is_closed_; });
    }

private:
    void set(bool& flag, bool value)
    {
        const std::lock_guard lock(mutex_);
        flag = value;
        changed_.notify_all();
    }

    std::mutex mutex_; // guards what follows, which state changes and the client's thread share
    std::condition_variable changed_;
    bool is_held_ = false;
    bool is_closed_ = false;
};

GstElementClass* stock_class = nullptr; // written once, by the type's initialisation

GQuark session_quark()
{
    static const GQuark quark = g_quark_from_static_string("velstream-rtsp-push");
    return quark;
}

Session& session_of(GstElement* push)
{
    return *static_cast<Session*>(g_object_get_qdata(G_OBJECT(push), session_quark()));
}

void handle_progress(Session& session, GstProgressType type, std::string_view code)
{
    const bool is_answered = type == GST_PROGRESS_TYPE_COMPLETE || type == GST_PROGRESS_TYPE_ERROR;
    if (code == "request" && is_answered) session.wait_while_held();
    if (code == "close" && (is_answered || type == GST_PROGRESS_TYPE_CANCELED)) session.note_closed();
}

gboolean post_message(GstElement* push, GstMessage* message)
{
    if (GST_MESSAGE_TYPE(message) != GST_MESSAGE_PROGRESS || GST_MESSAGE_SRC(message) != GST_OBJECT(push))
        return stock_class->post_message(push, message);
    GstProgressType type{};
    gchar* code = nullptr;
    gst_message_parse_progress(message, &type, &code, nullptr);
    const TextPtr owned_code(code);
    const gboolean is_posted = stock_class->post_message(push, message);
    handle_progress(session_of(push), type, code);
    return is_posted;
}

/// The client waits 20 s for an answer by default, and does not go down before. A server that has fallen silent is not
/// to hold up a stop for that long.
void set_answer_bound(GstElement* push, std::chrono::microseconds bound)
{
    g_object_set(push, "tcp-timeout", static_cast<guint64>(bound.count()), nullptr);
}

GstStateChangeReturn change_state(GstElement* push, GstStateChange transition)
{
    Session& session = session_of(push);
    const bool is_closing = transition == GST_STATE_CHANGE_PAUSED_TO_READY;
    if (!is_closing) session.release_requests();
    if (transition == GST_STATE_CHANGE_PLAYING_TO_PAUSED) session.hold_requests();
    if (is_closing) {
        session.note_open();
        set_answer_bound(push, kCloseBound);
    }
    const GstStateChangeReturn result = stock_class->change_state(push, transition);
    if (is_closing) {
        session.release_requests();
        session.wait_for_close();
    }
    return result;
}

void init_class(gpointer type_class, gpointer)
{
    auto* push_class = static_cast<GstElementClass*>(type_class);
    stock_class = static_cast<GstElementClass*>(g_type_class_peek_parent(type_class));
    push_class->elementfactory = stock_class->elementfactory;
    push_class->change_state = change_state;
    push_class->post_message = post_message;
}

void init_push(GTypeInstance* push, gpointer)
{
    g_object_set_qdata_full(G_OBJECT(push), session_quark(), new Session,
                            [](gpointer session) { delete static_cast<Session*>(session); });
    let_rtcp_end(GST_ELEMENT(push));
}

GType derive_push(GType stock)
{
    GTypeQuery sizes;
    g_type_query(stock, &sizes);
    return g_type_register_static_simple(stock, "VelstreamRtspPush", sizes.class_size, init_class, sizes.instance_size,
                                         init_push, GTypeFlags{});
}

} // namespace

void let_rtcp_end(GstElement* bin)
{
    if (!GST_IS_BIN(bin)) return; // something else may go by the name of the client
    g_signal_connect_data(bin, "deep-element-added", G_CALLBACK(on_element), nullptr, nullptr, GConnectFlags{});
}

ElementPtr make_rtsp_push(const char* name, const std::string& location)
{
    ElementPtr element = make_element("rtspclientsink", name);
    // Something else may go by the name, and is left as it is.
    if (element && std::string_view(G_OBJECT_TYPE_NAME(element.get())) == "GstRTSPClientSink") {
        static const GType type = derive_push(G_OBJECT_TYPE(element.get()));
        const TextPtr own_name(gst_object_get_name(GST_OBJECT(element.get())));
        element = share(static_cast<GstElement*>(g_object_new(type, "name", own_name.get(), nullptr)));
    }
    set_property(element.get(), "location", location);
    return element;
}

} // namespace Quorvis::VelStream

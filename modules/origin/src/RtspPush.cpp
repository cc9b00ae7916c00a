#include "RtspPush.h"

#include "ElementTools.h"

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string_view>
#include <vector>

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
    // Sessions come to be at some depth of it when it connects.
    g_signal_connect_data(push, "deep-element-added", G_CALLBACK(on_element), nullptr, nullptr, GConnectFlags{});
}

GType derive_push(GType stock)
{
    GTypeQuery sizes;
    g_type_query(stock, &sizes);
    return g_type_register_static_simple(stock, "VelstreamRtspPush", sizes.class_size, init_class, sizes.instance_size,
                                         init_push, GTypeFlags{});
}

/// Something else may go by the client's name, and is left as it is.
bool is_stock(GstElement* element)
{
    return element && std::string_view(G_OBJECT_TYPE_NAME(element)) == "GstRTSPClientSink";
}

void copy_property(GObject* from, GObject* to, GParamSpec* spec)
{
    const bool is_copied = (spec->flags & G_PARAM_READWRITE) == G_PARAM_READWRITE &&
                           !(spec->flags & G_PARAM_CONSTRUCT_ONLY) && spec->owner_type == G_OBJECT_TYPE(from);
    if (!is_copied) return;
    GValue value = G_VALUE_INIT;
    g_value_init(&value, spec->value_type);
    g_object_get_property(from, spec->name, &value);
    if (!g_param_value_defaults(spec, &value)) g_object_set_property(to, spec->name, &value);
    g_value_unset(&value);
}

/// A push with the name of the stock client and what has been set of that.
ElementPtr make_push_like(GstElement* stock)
{
    static const GType type = derive_push(G_OBJECT_TYPE(stock));
    const TextPtr name(gst_object_get_name(GST_OBJECT(stock)));
    ElementPtr push = share(static_cast<GstElement*>(g_object_new(type, "name", name.get(), nullptr)));
    guint count = 0;
    const std::unique_ptr<GParamSpec*[], Releaser<g_free>> specs(
        g_object_class_list_properties(G_OBJECT_GET_CLASS(stock), &count));
    for (guint k = 0; k < count; ++k)
        copy_property(G_OBJECT(stock), G_OBJECT(push.get()), specs[k]);
    return push;
}

struct PadPair {
    PadPtr source;
    PadPtr sink;
};

std::vector<PadPair> sink_links_of(GstElement* element)
{
    std::vector<PadPair> links;
    GST_OBJECT_LOCK(element);
    for (const GList* pad = element->sinkpads; pad; pad = pad->next)
        links.push_back({nullptr, PadPtr(GST_PAD(gst_object_ref(pad->data)))});
    GST_OBJECT_UNLOCK(element);
    for (PadPair& link : links)
        link.source.reset(gst_pad_get_peer(link.sink.get()));
    std::erase_if(links, [](const PadPair& link) { return !link.source; });
    return links;
}

void replace(GstElement* stock)
{
    const ElementPtr bin(GST_ELEMENT(gst_object_get_parent(GST_OBJECT(stock))));
    const ElementPtr push = make_push_like(stock);
    const std::vector<PadPair> links = sink_links_of(stock);
    for (const PadPair& link : links)
        gst_pad_unlink(link.source.get(), link.sink.get());
    gst_bin_remove(GST_BIN(bin.get()), stock);
    gst_bin_add(GST_BIN(bin.get()), push.get());
    for (const PadPair& link : links) {
        const ElementPtr before(gst_pad_get_parent_element(link.source.get()));
        gst_element_link_pads(before.get(), GST_PAD_NAME(link.source.get()), push.get(), nullptr);
    }
}

} // namespace

void replace_rtsp_pushes(GstElement* pipeline)
{
    if (!GST_IS_BIN(pipeline)) return;
    std::vector<ElementPtr> found;
    const IteratorPtr elements(gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline), "rtspclientsink"));
    const auto keep = [](const GValue* value, gpointer list) {
        auto* element = static_cast<GstElement*>(g_value_get_object(value));
        if (is_stock(element)) static_cast<std::vector<ElementPtr>*>(list)->push_back(share(element));
    };
    gst_iterator_foreach(elements.get(), keep, &found);
    for (const ElementPtr& stock : found)
        replace(stock.get());
}

ElementPtr make_rtsp_push(const char* name, const std::string& location)
{
    ElementPtr element = make_element("rtspclientsink", name);
    if (is_stock(element.get())) element = make_push_like(element.get());
    set_property(element.get(), "location", location);
    return element;
}

} // namespace Quorvis::VelStream

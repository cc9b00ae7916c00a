// The platform's "waylandsink": the stock one in a bin that has "x", "y", "width" and "height" and takes GBM caps.
//
// Of two plug-ins that offer one factory name the stock one wins whatever the path order, so the name cannot stand in
// the registry's cache: a process that loads this plug-in gets the platform's element at that moment, in its own memory
// only.
//
// Loading the stock plug-in puts its element under the name again, until the signal takes it back: a thread that makes
// a sink just then would get the stock one. So it is loaded with the first codec or transform, which every pipeline
// makes before its display, and not with the first display.
#include "elements.h"

#include "software_handles.h"
#include "waylandsink.h"

#include <gst/video/videooverlay.h>

#include <mutex>

namespace velstream::software {

namespace {

constexpr const char* kFactory = "waylandsink";

#define VEL_WAYLAND_FORMATS                                                                                            \
    "format=(string){ NV12, NV21, I420, YV12, YUY2, UYVY, BGRx, BGRA, RGBx, RGBA, xRGB, ARGB, xBGR, ABGR, RGB, BGR "   \
    "}, "                                                                                                              \
    "width=(int)[ 1, 32767 ], height=(int)[ 1, 32767 ], framerate=(fraction)[ 0/1, 2147483647/1 ]"
constexpr const char* kSinkCaps = "video/x-raw, " VEL_WAYLAND_FORMATS "; video/x-raw(memory:GBM), " VEL_WAYLAND_FORMATS;

// ---- The stock sink
// ----------------------------------------------------------------------------------------------------

struct StockSink {
    std::mutex mutex; ///< guards what follows; never held across a call into GStreamer, which has locks of its own
    GstPluginFeature* known = nullptr;  ///< owned; as the registry listed it. Null: none is installed
    GstPluginFeature* loaded = nullptr; ///< owned; with its code in the process
};

/// Lives as long as the process: elements are made from any thread, also while others exit.
StockSink& stock_sink()
{
    static StockSink* const stock = new StockSink;
    return *stock;
}

GType platform_sink_type();

bool is_platform_sink(GstPluginFeature* feature)
{
    return GST_IS_ELEMENT_FACTORY(feature) &&
           gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(feature)) == platform_sink_type();
}

void register_platform_sink()
{
    gst_element_register(nullptr, kFactory, GST_RANK_NONE, platform_sink_type());
}

/// Loading a plug-in registers its element anew: keeps that one for the inside and takes the name back.
void take_name_back(GstRegistry*, GstPluginFeature* feature, gpointer)
{
    if (g_strcmp0(GST_OBJECT_NAME(feature), kFactory) != 0 || is_platform_sink(feature)) return;
    const GType type = GST_IS_ELEMENT_FACTORY(feature)
                           ? gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(feature))
                           : G_TYPE_INVALID;
    const bool has_code = type != G_TYPE_INVALID;
    StockSink& stock = stock_sink();
    {
        const std::lock_guard lock(stock.mutex);
        // One that a scan has found is loaded when it is needed.
        gst_object_replace(reinterpret_cast<GstObject**>(&stock.loaded), has_code ? GST_OBJECT(feature) : nullptr);
        if (!has_code) gst_object_replace(reinterpret_cast<GstObject**>(&stock.known), GST_OBJECT(feature));
    }
    register_platform_sink();
}

PluginFeaturePtr loaded_sink()
{
    StockSink& stock = stock_sink();
    const std::lock_guard lock(stock.mutex);
    return PluginFeaturePtr(stock.loaded ? GST_PLUGIN_FEATURE(gst_object_ref(stock.loaded)) : nullptr);
}

/// Loading it registers it, which take_name_back() hears.
void load_stock_sink()
{
    StockSink& stock = stock_sink();
    PluginFeaturePtr known;
    {
        const std::lock_guard lock(stock.mutex);
        if (stock.known) known.reset(GST_PLUGIN_FEATURE(gst_object_ref(stock.known)));
    }
    const gchar* name = known ? gst_plugin_feature_get_plugin_name(known.get()) : nullptr;
    if (name) const PluginPtr plugin(gst_plugin_load_by_name(name));
}

/// Makes the stock element; empty where it is not installed or its plug-in does not load.
ElementPtr make_stock_sink()
{
    PluginFeaturePtr stock = loaded_sink();
    if (!stock) {
        load_stock_sink();
        stock = loaded_sink();
    }
    if (!stock) return nullptr;
    return share(gst_element_factory_create(GST_ELEMENT_FACTORY(stock.get()), nullptr));
}

// ---- The element
// -------------------------------------------------------------------------------------------------------

enum SinkProperty : guint { kX = 1, kY, kWidth, kHeight, kFirstForwarded };

/// Window position and size; guarded by the object lock.
struct Rectangle {
    int x = 0;
    int y = 0;
    int width = 0;  ///< pixels; 0: the video's size
    int height = 0; ///< likewise
};

struct VelWaylandSink {
    GstBin parent;
    GstElement* stock; ///< owned; null: it could not be made
    GstPad* sink;      ///< borrowed from the element
    Rectangle rectangle;
    gboolean is_placed; ///< the window is as the properties ask; guarded by the object lock
    GstPadEventFunction forward_event;
    GstPadQueryFunction forward_query;
};

struct VelWaylandSinkClass {
    GstBinClass parent_class;
};

G_DEFINE_TYPE(VelWaylandSink, vel_wayland_sink, GST_TYPE_BIN)

GType platform_sink_type()
{
    return vel_wayland_sink_get_type();
}

VelWaylandSink* self_of(gpointer object)
{
    return static_cast<VelWaylandSink*>(object);
}

CapsPtr with_features(const GstCaps* caps, const char* feature)
{
    CapsPtr result(gst_caps_copy(caps));
    for (guint i = 0; i < gst_caps_get_size(result.get()); ++i)
        gst_caps_set_features(result.get(), i, feature ? gst_caps_features_new(feature, nullptr) : nullptr);
    return result;
}

/// The stock sink knows no GBM memory; what carries that name here is ordinary memory.
CapsPtr without_gbm(const GstCaps* caps)
{
    CapsPtr result(gst_caps_copy(caps));
    for (guint i = 0; i < gst_caps_get_size(result.get()); ++i) {
        if (gst_caps_features_contains(gst_caps_get_features(result.get(), i), "memory:GBM"))
            gst_caps_set_features(result.get(), i, nullptr);
    }
    return result;
}

/// Gives the window the wanted size. Before its first frame the stock sink has no window and ignores this.
void resize_window(VelWaylandSink* self)
{
    GST_OBJECT_LOCK(self);
    const Rectangle rectangle = self->rectangle;
    GST_OBJECT_UNLOCK(self);
    if (rectangle.width == 0 || rectangle.height == 0 || !GST_IS_VIDEO_OVERLAY(self->stock)) return;
    gst_video_overlay_set_render_rectangle(GST_VIDEO_OVERLAY(self->stock), rectangle.x, rectangle.y, rectangle.width,
                                           rectangle.height);
}

/// After a frame, so that there is a window: does once what the properties ask for.
void place_window(VelWaylandSink* self)
{
    GST_OBJECT_LOCK(self);
    const bool is_due = !self->is_placed;
    self->is_placed = TRUE;
    GST_OBJECT_UNLOCK(self);
    if (is_due) resize_window(self);
}

void mark_unplaced(VelWaylandSink* self)
{
    GST_OBJECT_LOCK(self);
    self->is_placed = FALSE;
    GST_OBJECT_UNLOCK(self);
}

GstFlowReturn sink_chain(GstPad* pad, GstObject* parent, GstBuffer* buffer)
{
    const GstFlowReturn result = gst_proxy_pad_chain_default(pad, parent, buffer);
    if (result == GST_FLOW_OK) place_window(self_of(parent));
    return result;
}

gboolean sink_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    VelWaylandSink* self = self_of(parent);
    if (GST_EVENT_TYPE(event) != GST_EVENT_CAPS) return self->forward_event(pad, parent, event);
    const EventPtr original(event);
    GstCaps* caps = nullptr;
    gst_event_parse_caps(event, &caps);
    GstEvent* plain = gst_event_new_caps(without_gbm(caps).get());
    gst_event_set_seqnum(plain, gst_event_get_seqnum(event));
    mark_unplaced(self);
    return self->forward_event(pad, parent, plain);
}

/// What the stock sink takes, and the same once more as GBM memory.
CapsPtr accepted_caps(VelWaylandSink* self)
{
    const CapsPtr own(gst_pad_get_pad_template_caps(self->sink));
    const PadPtr inner(self->stock ? gst_element_get_static_pad(self->stock, "sink") : nullptr);
    if (!inner) return CapsPtr(gst_caps_copy(own.get()));
    const CapsPtr raw(gst_caps_new_empty_simple("video/x-raw"));
    const CapsPtr answer(gst_pad_query_caps(inner.get(), nullptr));
    CapsPtr plain(gst_caps_intersect(answer.get(), raw.get()));
    CapsPtr gbm = with_features(plain.get(), "memory:GBM");
    return CapsPtr(gst_caps_merge(plain.release(), gbm.release()));
}

gboolean sink_query(GstPad* pad, GstObject* parent, GstQuery* query)
{
    VelWaylandSink* self = self_of(parent);
    if (GST_QUERY_TYPE(query) == GST_QUERY_CAPS) {
        GstCaps* filter = nullptr;
        gst_query_parse_caps(query, &filter);
        CapsPtr caps = accepted_caps(self);
        if (filter) caps.reset(gst_caps_intersect_full(filter, caps.get(), GST_CAPS_INTERSECT_FIRST));
        gst_query_set_caps_result(query, caps.get());
        return TRUE;
    }
    if (GST_QUERY_TYPE(query) == GST_QUERY_ACCEPT_CAPS) {
        GstCaps* asked = nullptr;
        gst_query_parse_accept_caps(query, &asked);
        gst_query_set_accept_caps_result(query, gst_caps_is_subset(asked, accepted_caps(self).get()));
        return TRUE;
    }
    return self->forward_query(pad, parent, query);
}

GstStateChangeReturn change_state(GstElement* element, GstStateChange transition)
{
    VelWaylandSink* self = self_of(element);
    if (transition == GST_STATE_CHANGE_NULL_TO_READY && !self->stock) {
        GST_ELEMENT_ERROR(element, CORE, MISSING_PLUGIN,
                          ("The display's sink is missing: install the package gstreamer1.0-plugins-bad."), (nullptr));
        return GST_STATE_CHANGE_FAILURE;
    }
    if (transition == GST_STATE_CHANGE_READY_TO_PAUSED) mark_unplaced(self);
    // The frame that is shown while pausing has made the window, and its push returns only now.
    if (transition == GST_STATE_CHANGE_PAUSED_TO_PLAYING) resize_window(self);
    return GST_ELEMENT_CLASS(vel_wayland_sink_parent_class)->change_state(element, transition);
}

int* rectangle_member(VelWaylandSink* self, guint id)
{
    switch (id) {
    case kX:
        return &self->rectangle.x;
    case kY:
        return &self->rectangle.y;
    case kWidth:
        return &self->rectangle.width;
    case kHeight:
        return &self->rectangle.height;
    default:
        return nullptr;
    }
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    VelWaylandSink* self = self_of(object);
    if (id >= kFirstForwarded) {
        if (self->stock) g_object_set_property(G_OBJECT(self->stock), pspec->name, value);
        return;
    }
    GST_OBJECT_LOCK(self);
    *rectangle_member(self, id) = g_value_get_int(value);
    self->is_placed = FALSE;
    GST_OBJECT_UNLOCK(self);
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    VelWaylandSink* self = self_of(object);
    if (id >= kFirstForwarded) {
        if (self->stock)
            g_object_get_property(G_OBJECT(self->stock), pspec->name, value);
        else
            g_param_value_set_default(pspec, value);
        return;
    }
    GST_OBJECT_LOCK(self);
    g_value_set_int(value, *rectangle_member(self, id));
    GST_OBJECT_UNLOCK(self);
}

void finalize(GObject* object)
{
    gst_clear_object(&self_of(object)->stock);
    G_OBJECT_CLASS(vel_wayland_sink_parent_class)->finalize(object);
}

void add_sink_pad(VelWaylandSink* self)
{
    GstPadTemplate* pad_template = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "sink");
    self->sink = gst_ghost_pad_new_no_target_from_template("sink", pad_template);
    self->forward_event = GST_PAD_EVENTFUNC(self->sink);
    self->forward_query = GST_PAD_QUERYFUNC(self->sink);
    gst_pad_set_chain_function(self->sink, sink_chain);
    gst_pad_set_event_function(self->sink, sink_event);
    gst_pad_set_query_function(self->sink, sink_query);
    gst_element_add_pad(GST_ELEMENT(self), self->sink);
}

void vel_wayland_sink_init(VelWaylandSink* self)
{
    self->rectangle = Rectangle{};
    self->stock = make_stock_sink().release();
    add_sink_pad(self);
    GST_OBJECT_FLAG_SET(self, GST_ELEMENT_FLAG_SINK);
    if (!self->stock) return;
    gst_bin_add(GST_BIN(self), self->stock);
    const PadPtr target(gst_element_get_static_pad(self->stock, "sink"));
    gst_ghost_pad_set_target(GST_GHOST_PAD(self->sink), target.get());
}

void install_properties(GObjectClass* klass)
{
    constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    const auto add_int = [&](guint id, const char* name, const char* blurb, int least) {
        g_object_class_install_property(klass, id, g_param_spec_int(name, name, blurb, least, G_MAXINT, 0, flags));
    };
    add_int(kX, "x", "Left edge of the picture in its parent surface; a window of its own is placed by the compositor",
            G_MININT);
    add_int(kY, "y", "Top edge of the picture in its parent surface; a window of its own is placed by the compositor",
            G_MININT);
    add_int(kWidth, "width", "Width of the window in pixels, 0: the video's size", 0);
    add_int(kHeight, "height", "Height of the window in pixels, 0: the video's size", 0);
    const auto add_boolean = [&](guint id, const char* name, const char* blurb, gboolean value) {
        g_object_class_install_property(klass, id, g_param_spec_boolean(name, name, blurb, value, flags));
    };
    add_boolean(kFirstForwarded, "sync", "Show frames by the clock", TRUE);
    add_boolean(kFirstForwarded + 1, "async", "Go to PAUSED with the first frame", TRUE);
    add_boolean(kFirstForwarded + 2, "qos", "Tell upstream about late frames", TRUE);
    add_boolean(kFirstForwarded + 3, "fullscreen", "Fill the screen", FALSE);
    g_object_class_install_property(
        klass, kFirstForwarded + 4,
        g_param_spec_string("display", "display", "Name of the Wayland display", nullptr, flags));
}

void vel_wayland_sink_class_init(VelWaylandSinkClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class);
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    element_class->change_state = change_state;
    const CapsPtr caps(gst_caps_from_string(kSinkCaps));
    gst_element_class_add_pad_template(element_class,
                                       gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps.get()));
    gst_element_class_set_static_metadata(element_class, "Wayland video sink (platform)", "Sink/Video",
                                          "The stock Wayland sink with the platform's properties", "velstream-gst");
}

void swap_sinks()
{
    GstRegistry* registry = gst_registry_get();
    StockSink& stock = stock_sink();
    stock.known = gst_registry_lookup_feature(registry, kFactory);
    if (!stock.known) return;
    if (GST_IS_ELEMENT_FACTORY(stock.known) && gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(stock.known)))
        stock.loaded = GST_PLUGIN_FEATURE(gst_object_ref(stock.known));
    g_signal_connect(registry, "feature-added", G_CALLBACK(take_name_back), nullptr);
    register_platform_sink();
}

void swap_sinks_once()
{
    static std::once_flag once;
    std::call_once(once, swap_sinks);
}

} // namespace

void prepare_waylandsink()
{
    swap_sinks_once(); // already done, unless this process has scanned the plug-in itself
    static std::once_flag once;
    std::call_once(once, load_stock_sink);
}

gboolean register_waylandsink(GstPlugin* plugin)
{
    // A plug-in that the registry does not know yet is being scanned; what a scan registers would go into the cache.
    const PluginPtr cached(gst_registry_find_plugin(gst_registry_get(), gst_plugin_get_name(plugin)));
    // GStreamer loads one plug-in at a time: the stock one cannot be loaded from in here.
    if (cached) swap_sinks_once();
    return TRUE;
}

} // namespace velstream::software

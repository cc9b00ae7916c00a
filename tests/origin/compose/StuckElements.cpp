#include "StuckElements.h"

#include <gst/base/gstbasesink.h>
#include <gst/base/gstbasetransform.h>
#include <gst/base/gstpushsrc.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>

namespace velstream::testing {

namespace {

// Guarded by the mutex: the test's thread and the elements' share them.
std::mutex mutex;
std::condition_variable changed;
bool is_closed = false;
int held = 0;
int alive = 0;

int buffers_to_take = 0; // written before the elements are made

/// On a streaming thread, which an element waits for on its way down, or in a start.
void wait_at_gate()
{
    std::unique_lock lock(mutex);
    ++held;
    changed.notify_all();
    changed.wait(lock, [] { return !is_closed; });
    --held;
}

void count_alive(int difference)
{
    const std::lock_guard lock(mutex);
    alive += difference;
    changed.notify_all();
}

// ---- What both have ----

GQuark location_quark()
{
    return g_quark_from_static_string("stuck-location");
}

/// What the descriptions set; all but the first has no effect.
constexpr const char* kProperties[] = {
    "location", "latency", "protocols", "tcp-timeout", "do-rtsp-keep-alive", "async-handling", "timeout",
};
constexpr guint kLocation = 1;

void set_text(GObject* object, guint id, const GValue* value, GParamSpec*)
{
    if (id != kLocation) return;
    g_object_set_qdata_full(object, location_quark(), g_value_dup_string(value), g_free);
}

void get_text(GObject* object, guint id, GValue* value, GParamSpec*)
{
    if (id != kLocation) return;
    g_value_set_string(value, static_cast<const char*>(g_object_get_qdata(object, location_quark())));
}

template <typename Parent>
void finalize(GObject* object)
{
    static GObjectClass* const parent = G_OBJECT_CLASS(g_type_class_peek_static(Parent::type()));
    parent->finalize(object);
    count_alive(-1);
}

template <typename Parent>
void init_common(GObjectClass* object_class)
{
    object_class->set_property = set_text;
    object_class->get_property = get_text;
    object_class->finalize = finalize<Parent>;
    guint id = kLocation;
    for (const char* name : kProperties) {
        const auto flags = GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
        g_object_class_install_property(object_class, id++, g_param_spec_string(name, name, name, nullptr, flags));
    }
}

void add_pad(gpointer element_class, const char* name, GstPadDirection direction, const char* text)
{
    GstCaps* caps = gst_caps_from_string(text);
    gst_element_class_add_pad_template(GST_ELEMENT_CLASS(element_class),
                                       gst_pad_template_new(name, direction, GST_PAD_ALWAYS, caps));
    gst_caps_unref(caps);
    gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(element_class), name, "Test", "Does not come down",
                                          "velstream-gst");
}

void init_instance(GTypeInstance*, gpointer)
{
    count_alive(1);
}

// ---- Push ----

struct SinkParent {
    static GType type() { return GST_TYPE_BASE_SINK; }
};

GstFlowReturn render(GstBaseSink* sink, GstBuffer*)
{
    static const GQuark taken = g_quark_from_static_string("stuck-taken");
    const int count = GPOINTER_TO_INT(g_object_get_qdata(G_OBJECT(sink), taken));
    g_object_set_qdata(G_OBJECT(sink), taken, GINT_TO_POINTER(count + 1));
    if (count >= buffers_to_take) wait_at_gate();
    return GST_FLOW_OK;
}

void init_push_class(gpointer sink_class, gpointer)
{
    init_common<SinkParent>(G_OBJECT_CLASS(sink_class));
    add_pad(sink_class, "sink", GST_PAD_SINK, "video/x-h264; video/x-h265");
    GST_BASE_SINK_CLASS(sink_class)->render = render;
}

// ---- Camera ----

struct SourceParent {
    static GType type() { return GST_TYPE_PUSH_SRC; }
};

GstFlowReturn create(GstPushSrc*, GstBuffer**)
{
    wait_at_gate();
    return GST_FLOW_EOS;
}

void init_camera_class(gpointer source_class, gpointer)
{
    init_common<SourceParent>(G_OBJECT_CLASS(source_class));
    add_pad(source_class, "src", GST_PAD_SRC, "application/x-rtp, media=video, encoding-name=H264, clock-rate=90000");
    GST_PUSH_SRC_CLASS(source_class)->create = create;
}

void init_camera(GTypeInstance* camera, gpointer)
{
    gst_base_src_set_live(GST_BASE_SRC(camera), TRUE);
    count_alive(1);
}

// ---- Model ----

gboolean start_model(GstBaseTransform* model)
{
    static auto* const parent = GST_BASE_TRANSFORM_CLASS(g_type_class_peek_parent(GST_BASE_TRANSFORM_GET_CLASS(model)));
    wait_at_gate();
    return parent->start(model);
}

void init_model_class(gpointer model_class, gpointer)
{
    GST_BASE_TRANSFORM_CLASS(model_class)->start = start_model;
}

GType type_of_models()
{
    GstElement* element = gst_element_factory_make("qtimlqnn", nullptr);
    const GType type = element ? G_OBJECT_TYPE(element) : G_TYPE_INVALID;
    g_clear_pointer(&element, gst_object_unref);
    return type;
}

GType register_type(GType parent, const char* name, GClassInitFunc init_class, GInstanceInitFunc init)
{
    GTypeQuery sizes;
    g_type_query(parent, &sizes);
    return g_type_register_static_simple(parent, name, sizes.class_size, init_class, sizes.instance_size, init,
                                         GTypeFlags{});
}

} // namespace

Gate::Gate()
{
    const std::lock_guard lock(mutex);
    is_closed = true;
}

void Gate::open()
{
    const std::lock_guard lock(mutex);
    is_closed = false;
    changed.notify_all();
}

Gate::~Gate()
{
    open();
    std::unique_lock lock(mutex);
    EXPECT_TRUE(changed.wait_for(lock, kPatience, [] { return alive == 0; }));
}

bool Gate::wait_until_held(std::chrono::seconds bound)
{
    std::unique_lock lock(mutex);
    return changed.wait_for(lock, bound, [] { return held > 0; });
}

GType stuck_push_type(int buffers)
{
    buffers_to_take = buffers;
    static const GType type = register_type(SinkParent::type(), "StuckPush", init_push_class, init_instance);
    return type;
}

GType stuck_camera_type()
{
    static const GType type = register_type(SourceParent::type(), "StuckCamera", init_camera_class, init_camera);
    return type;
}

GType slow_model_type()
{
    static const GType type = register_type(type_of_models(), "SlowModel", init_model_class, nullptr);
    return type;
}

} // namespace velstream::testing

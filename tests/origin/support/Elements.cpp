#include "Elements.h"

#include <gst/gsttracer.h>

#include <algorithm>
#include <cstring>
#include <mutex>

namespace velstream::testing {

namespace {

bool is_numbered(std::string type, const std::string& name)
{
    if (type.rfind("Gst", 0) == 0) type.erase(0, 3);
    const Quorvis::VelStream::TextPtr stem(g_ascii_strdown(type.c_str(), -1));
    return name.rfind(stem.get(), 0) == 0 &&
           name.find_first_not_of("-0123456789", std::strlen(stem.get())) == name.npos;
}

/// True for the name that an element gets which nobody named: its type's name, or the one's that it derives from, and a
/// number.
bool is_automatic_name(GstElement* element, const std::string& name)
{
    for (GType type = G_OBJECT_TYPE(element); type != 0; type = g_type_parent(type)) {
        if (is_numbered(g_type_name(type), name)) return true;
    }
    return false;
}

PadPtr linked_source_pad(GstElement* element)
{
    GST_OBJECT_LOCK(element);
    PadPtr found;
    for (const GList* pads = element->srcpads; pads && !found; pads = pads->next) {
        if (GST_PAD_PEER(pads->data)) found.reset(GST_PAD(gst_object_ref(pads->data)));
    }
    GST_OBJECT_UNLOCK(element);
    return found;
}

PadPtr linked_sink_pad(GstElement* element)
{
    GST_OBJECT_LOCK(element);
    PadPtr found;
    for (const GList* pads = element->sinkpads; pads && !found; pads = pads->next) {
        if (GST_PAD_PEER(pads->data)) found.reset(GST_PAD(gst_object_ref(pads->data)));
    }
    GST_OBJECT_UNLOCK(element);
    return found;
}

/// The element on the other side of a pad; null when there is none, or when that is a bin's inner proxy.
ElementPtr peer_element(GstPad* pad)
{
    if (!pad) return nullptr;
    const PadPtr peer(gst_pad_get_peer(pad));
    if (!peer) return nullptr;
    GstObject* parent = gst_object_get_parent(GST_OBJECT(peer.get()));
    if (!parent) return nullptr;
    if (!GST_IS_ELEMENT(parent)) {
        gst_object_unref(parent);
        return nullptr;
    }
    return ElementPtr(GST_ELEMENT(parent));
}

ElementPtr ghost_target(GstElement* bin, const char* name)
{
    const PadPtr ghost(gst_element_get_static_pad(bin, name));
    if (!ghost || !GST_IS_GHOST_PAD(ghost.get())) return nullptr;
    const PadPtr target(gst_ghost_pad_get_target(GST_GHOST_PAD(ghost.get())));
    return target ? ElementPtr(gst_pad_get_parent_element(target.get())) : nullptr;
}

GValue value_of(gpointer object, const std::string& name)
{
    GValue value = G_VALUE_INIT;
    if (!object) {
        ADD_FAILURE() << "no object to read " << name << " of";
        return value;
    }
    const GParamSpec* spec = g_object_class_find_property(G_OBJECT_GET_CLASS(object), name.c_str());
    if (!spec) {
        ADD_FAILURE() << G_OBJECT_TYPE_NAME(object) << " has no property " << name;
        return value;
    }
    g_value_init(&value, spec->value_type);
    g_object_get_property(G_OBJECT(object), name.c_str(), &value);
    return value;
}

GType type_of_factory(const std::string& factory)
{
    GstElementFactory* found = gst_element_factory_find(factory.c_str());
    if (!found) return G_TYPE_INVALID;
    GstPluginFeature* loaded = gst_plugin_feature_load(GST_PLUGIN_FEATURE(found));
    const GType type = gst_element_factory_get_element_type(GST_ELEMENT_FACTORY(loaded));
    gst_object_unref(loaded);
    gst_object_unref(found);
    return type;
}

} // namespace

std::string factory_of(GstElement* element)
{
    GstElementFactory* factory = element ? gst_element_get_factory(element) : nullptr;
    return factory ? GST_OBJECT_NAME(factory) : "none";
}

std::string name_of(GstElement* element)
{
    const Quorvis::VelStream::TextPtr name(element ? gst_element_get_name(element) : nullptr);
    return name ? name.get() : "";
}

ElementPtr child(GstElement* bin, const std::string& name)
{
    return ElementPtr(gst_bin_get_by_name(GST_BIN(bin), name.c_str()));
}

ElementPtr child_of_factory(GstElement* bin, const std::string& factory)
{
    GST_OBJECT_LOCK(bin);
    ElementPtr found;
    for (const GList* children = GST_BIN_CHILDREN(bin); children && !found; children = children->next) {
        if (factory_of(GST_ELEMENT(children->data)) == factory)
            found.reset(GST_ELEMENT(gst_object_ref(children->data)));
    }
    GST_OBJECT_UNLOCK(bin);
    return found;
}

ElementPtr only_child(GstElement* bin)
{
    GST_OBJECT_LOCK(bin);
    const GList* children = GST_BIN_CHILDREN(bin);
    ElementPtr found(children && !children->next ? GST_ELEMENT(gst_object_ref(children->data)) : nullptr);
    GST_OBJECT_UNLOCK(bin);
    return found;
}

std::vector<std::string> factories_in(GstElement* bin)
{
    std::vector<std::string> factories;
    GST_OBJECT_LOCK(bin);
    for (const GList* children = GST_BIN_CHILDREN(bin); children; children = children->next)
        factories.push_back(factory_of(GST_ELEMENT(children->data)));
    GST_OBJECT_UNLOCK(bin);
    std::sort(factories.begin(), factories.end());
    return factories;
}

std::string label_of(GstElement* element)
{
    if (!element) return "none";
    const std::string factory = factory_of(element);
    const std::string name = name_of(element);
    return is_automatic_name(element, name) ? factory : factory + ":" + name;
}

std::vector<std::string> chain_from(GstElement* element)
{
    std::vector<std::string> labels;
    ElementPtr current(element ? GST_ELEMENT(gst_object_ref(element)) : nullptr);
    while (current) {
        labels.push_back(label_of(current.get()));
        current = peer_element(linked_source_pad(current.get()).get());
    }
    return labels;
}

std::vector<std::string> chain_from_ghost_sink(GstElement* bin)
{
    return chain_from(ghost_target(bin, "sink").get());
}

std::vector<std::string> chain_to_ghost_src(GstElement* bin)
{
    std::vector<std::string> labels;
    ElementPtr current = ghost_target(bin, "src");
    while (current) {
        labels.insert(labels.begin(), label_of(current.get()));
        current = peer_element(linked_sink_pad(current.get()).get());
    }
    return labels;
}

void expect_one_active_ghost(GstElement* bin, const char* name)
{
    const PadPtr ghost(gst_element_get_static_pad(bin, name));
    ASSERT_TRUE(ghost && GST_IS_GHOST_PAD(ghost.get()));
    EXPECT_TRUE(gst_pad_is_active(ghost.get()));
    EXPECT_EQ(bin->numpads, 1) << "no other pad";
}

bool has_property(gpointer object, const std::string& name)
{
    return g_object_class_find_property(G_OBJECT_GET_CLASS(object), name.c_str()) != nullptr;
}

long number_of(gpointer object, const std::string& name)
{
    GValue value = value_of(object, name);
    if (!G_IS_VALUE(&value)) return -1;
    long number = -1;
    if (G_VALUE_HOLDS_ENUM(&value)) {
        number = g_value_get_enum(&value);
    } else if (G_VALUE_HOLDS_FLAGS(&value)) {
        number = g_value_get_flags(&value);
    } else {
        GValue as_long = G_VALUE_INIT;
        g_value_init(&as_long, G_TYPE_LONG);
        if (g_value_transform(&value, &as_long))
            number = g_value_get_long(&as_long);
        else
            ADD_FAILURE() << name << " is not a number";
    }
    g_value_unset(&value);
    return number;
}

std::string text_of(gpointer object, const std::string& name)
{
    GValue value = value_of(object, name);
    if (!G_IS_VALUE(&value)) return "";
    const char* text = G_VALUE_HOLDS_STRING(&value) ? g_value_get_string(&value) : nullptr;
    const std::string copy = text ? text : "";
    g_value_unset(&value);
    return copy;
}

bool has_caps(GstElement* filter, const std::string& caps)
{
    GValue value = value_of(filter, "caps");
    if (!G_IS_VALUE(&value)) return false;
    const CapsPtr expected(gst_caps_from_string(caps.c_str()));
    const GstCaps* actual = gst_value_get_caps(&value);
    const bool is_equal = actual && expected && gst_caps_is_equal(actual, expected.get());
    if (!is_equal) {
        const Quorvis::VelStream::TextPtr text(actual ? gst_caps_to_string(actual) : nullptr);
        ADD_FAILURE() << "caps of " << name_of(filter) << ": " << (text ? text.get() : "none");
    }
    g_value_unset(&value);
    return is_equal;
}

PadPtr make_source_pad(const std::string& name, const std::string& caps)
{
    PadPtr pad(GST_PAD(gst_object_ref_sink(gst_pad_new(name.c_str(), GST_PAD_SRC))));
    gst_pad_set_active(pad.get(), TRUE);
    if (!caps.empty()) set_pad_caps(pad.get(), caps);
    return pad;
}

void set_pad_caps(GstPad* pad, const std::string& text)
{
    const CapsPtr caps(gst_caps_from_string(text.c_str()));
    gst_pad_push_event(pad, gst_event_new_stream_start("test"));
    gst_pad_push_event(pad, gst_event_new_caps(caps.get()));
}

bool is_linked_to(GstPad* pad, GstElement* element, const char* sink_pad)
{
    const PadPtr sink(gst_element_get_static_pad(element, sink_pad));
    const PadPtr peer(gst_pad_get_peer(pad));
    return sink && peer == sink;
}

int reference_count(gpointer object)
{
    return GST_OBJECT_REFCOUNT_VALUE(object);
}

// ---- Links that are tried, by GStreamer's own tracing

namespace {

std::mutex link_results_mutex;
std::vector<GstPadLinkReturn> link_results;

void keep_link_result(GObject*, GstClockTime, GstPad*, GstPad*, GstPadLinkReturn result)
{
    const std::lock_guard lock(link_results_mutex);
    link_results.push_back(result);
}

} // namespace

void record_pad_links()
{
    const GType type = g_type_register_static_simple(GST_TYPE_TRACER, "VelTestLinkTracer", sizeof(GstTracerClass),
                                                     nullptr, sizeof(GstTracer), nullptr, GTypeFlags{});
    // Never released: a hook cannot be taken away again.
    auto* tracer = GST_TRACER(gst_object_ref_sink(g_object_new(type, nullptr)));
    gst_tracing_register_hook(tracer, "pad-link-post", G_CALLBACK(keep_link_result));
}

std::vector<GstPadLinkReturn> pad_link_results()
{
    const std::lock_guard lock(link_results_mutex);
    return link_results;
}

namespace {

/// The feature of a plug-in that is loaded: one that is not would register its elements anew when it is.
GstPluginFeature* loaded_feature(const std::string& factory)
{
    GstPluginFeature* listed = gst_registry_lookup_feature(gst_registry_get(), factory.c_str());
    if (!listed) return nullptr;
    GstPluginFeature* loaded = gst_plugin_feature_load(listed);
    gst_object_unref(listed);
    return loaded;
}

} // namespace

WithoutElement::WithoutElement(const std::string& factory) : feature_(loaded_feature(factory))
{
    if (feature_) gst_registry_remove_feature(gst_registry_get(), feature_);
}

WithoutElement::~WithoutElement()
{
    if (!feature_) return;
    gst_registry_add_feature(gst_registry_get(), feature_);
    gst_object_unref(feature_);
}

ElementStandIn::ElementStandIn(const std::string& factory, GType type) : hidden_(factory), factory_(factory)
{
    if (type == G_TYPE_INVALID || !gst_element_register(nullptr, factory.c_str(), GST_RANK_NONE, type))
        ADD_FAILURE() << "no stand-in for " << factory;
}

ElementStandIn::ElementStandIn(const std::string& factory, const std::string& other_factory)
    : ElementStandIn(factory, type_of_factory(other_factory))
{
}

ElementStandIn::~ElementStandIn()
{
    GstPluginFeature* feature = gst_registry_lookup_feature(gst_registry_get(), factory_.c_str());
    if (!feature) return;
    gst_registry_remove_feature(gst_registry_get(), feature);
    gst_object_unref(feature);
}

void load_software_elements()
{
    GstPlugin* plugin = gst_plugin_load_by_name("velsoftware");
    EXPECT_NE(plugin, nullptr);
    gst_clear_object(&plugin);
    // Where the test itself has scanned the plug-in, loading it did nothing: the first of its elements takes the name.
    const ElementPtr first = share(gst_element_factory_make("qtivtransform", nullptr));
}

// ---- A sink with a window's place and size

namespace {

struct WindowSink {
    GstBin parent;
    int place[4]; // x, y, width, height
};

struct WindowSinkClass {
    GstBinClass parent_class;
};

constexpr const char* kPlaceNames[] = {"x", "y", "width", "height"};

void set_window_property(GObject* object, guint id, const GValue* value, GParamSpec*)
{
    reinterpret_cast<WindowSink*>(object)->place[id - 1] = g_value_get_int(value);
}

void get_window_property(GObject* object, guint id, GValue* value, GParamSpec*)
{
    g_value_set_int(value, reinterpret_cast<WindowSink*>(object)->place[id - 1]);
}

void init_window_class(gpointer klass, gpointer)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_window_property;
    object_class->get_property = get_window_property;
    for (guint i = 0; i < 4; ++i) {
        g_object_class_install_property(object_class, i + 1,
                                        g_param_spec_int(kPlaceNames[i], kPlaceNames[i], kPlaceNames[i], G_MININT,
                                                         G_MAXINT, -1,
                                                         GParamFlags(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS)));
    }
    GstCaps* any = gst_caps_new_any();
    gst_element_class_add_pad_template(GST_ELEMENT_CLASS(klass),
                                       gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, any));
    gst_caps_unref(any);
    gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Window sink", "Sink/Video",
                                          "Keeps a window's place and size", "velstream-gst");
}

void init_window_sink(GTypeInstance* instance, gpointer)
{
    auto* self = reinterpret_cast<WindowSink*>(instance);
    std::fill(std::begin(self->place), std::end(self->place), -1);
    GstElement* inner = gst_element_factory_make("fakesink", "inner");
    gst_bin_add(GST_BIN(self), inner);
    const PadPtr target(gst_element_get_static_pad(inner, "sink"));
    gst_element_add_pad(GST_ELEMENT(self), gst_ghost_pad_new("sink", target.get()));
}

} // namespace

GType window_sink_type()
{
    static const GType type =
        g_type_register_static_simple(GST_TYPE_BIN, "VelTestWindowSink", sizeof(WindowSinkClass), init_window_class,
                                      sizeof(WindowSink), init_window_sink, GTypeFlags{});
    return type;
}

} // namespace velstream::testing

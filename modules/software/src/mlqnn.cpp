// "qtimlqnn": runs a model on tensors.
#include "elements.h"
#include "frame_convert.h"
#include "network.h"
#include "pad_templates.h"
#include "software_handles.h"

#include <gst/base/gstbasetransform.h>

#include <cstring>

namespace velstream::software {

namespace {

enum Property : guint { kModel = 1, kBackend };

struct MlQnnState {
    // Guarded by the object lock.
    std::string model;
    std::string backend;              ///< kept for its reader: there is one way to run a model here
    std::shared_ptr<Network> network; ///< null: not started. Written by start and stop, run by the streaming thread
};

struct VelMlQnn {
    GstBaseTransform parent;
    MlQnnState* state; ///< owned
};

struct VelMlQnnClass {
    GstBaseTransformClass parent_class;
};

GType vel_ml_qnn_get_type();
G_DEFINE_TYPE(VelMlQnn, vel_ml_qnn, GST_TYPE_BASE_TRANSFORM)

MlQnnState& state_of(gpointer object)
{
    return *static_cast<VelMlQnn*>(object)->state;
}

std::shared_ptr<Network> network_of(gpointer object)
{
    GST_OBJECT_LOCK(object);
    auto network = state_of(object).network;
    GST_OBJECT_UNLOCK(object);
    return network;
}

std::string model_of(gpointer object)
{
    GST_OBJECT_LOCK(object);
    auto model = state_of(object).model;
    GST_OBJECT_UNLOCK(object);
    return model;
}

void keep_network(gpointer object, std::shared_ptr<Network> network)
{
    GST_OBJECT_LOCK(object);
    state_of(object).network.swap(network);
    GST_OBJECT_UNLOCK(object);
}

gboolean start(GstBaseTransform* qnn)
{
    try {
        keep_network(qnn, std::make_shared<Network>(model_of(qnn)));
    } catch (const std::exception& error) {
        GST_ELEMENT_ERROR(qnn, RESOURCE, OPEN_READ, ("%s", error.what()), (nullptr));
        return FALSE;
    }
    const auto network = network_of(qnn);
    GST_INFO_OBJECT(qnn, "the model takes %s %s and gives %s", name_of(network->input().type),
                    text_of(network->input().shapes).c_str(), text_of(network->outputs().shapes).c_str());
    return TRUE;
}

gboolean stop(GstBaseTransform* qnn)
{
    keep_network(qnn, nullptr);
    return TRUE;
}

/// The model decides about the tensors; what else the caps say goes through.
GstCaps* transform_caps(GstBaseTransform* qnn, GstPadDirection direction, GstCaps* caps, GstCaps* filter)
{
    const auto network = network_of(qnn);
    CapsPtr other(gst_caps_new_empty());
    for (guint i = 0; i < gst_caps_get_size(caps); ++i) {
        GstStructure* structure = gst_structure_copy(gst_caps_get_structure(caps, i));
        gst_structure_remove_fields(structure, "type", "dimensions", nullptr);
        if (network) write_tensors(structure, direction == GST_PAD_SINK ? network->outputs() : network->input());
        other.reset(gst_caps_merge_structure(other.release(), structure));
    }
    if (filter) other.reset(gst_caps_intersect_full(filter, other.get(), GST_CAPS_INTERSECT_FIRST));
    return other.release();
}

gboolean set_caps(GstBaseTransform* qnn, GstCaps* in_caps, GstCaps*)
{
    const auto network = network_of(qnn);
    const auto tensors = read_tensors(in_caps);
    if (!network) return FALSE;
    const Tensors& wanted = network->input();
    if (tensors && tensors->type == wanted.type && tensors->shapes == wanted.shapes) return TRUE;
    gchar* text = gst_caps_to_string(in_caps);
    GST_ELEMENT_ERROR(qnn, STREAM, FORMAT,
                      ("The model takes %s %s.", name_of(wanted.type), text_of(wanted.shapes).c_str()),
                      ("What came is %s", text));
    g_free(text);
    return FALSE;
}

gboolean get_unit_size(GstBaseTransform*, GstCaps* caps, gsize* size)
{
    const auto tensors = read_tensors(caps);
    if (!tensors) return FALSE;
    *size = 0;
    for (const Shape& shape : tensors->shapes)
        *size += size_of(tensors->type, shape);
    return TRUE;
}

gboolean transform_size(GstBaseTransform* qnn, GstPadDirection, GstCaps*, gsize, GstCaps* other, gsize* other_size)
{
    return get_unit_size(qnn, other, other_size);
}

/// One memory for each tensor.
GstFlowReturn prepare_output_buffer(GstBaseTransform* qnn, GstBuffer* input, GstBuffer** output)
{
    const auto network = network_of(qnn);
    if (!network) return GST_FLOW_FLUSHING;
    *output = gst_buffer_new();
    for (const Shape& shape : network->outputs().shapes)
        gst_buffer_append_memory(*output, gst_allocator_alloc(nullptr, size_of(TensorType::float32, shape), nullptr));
    copy_frame_metadata(input, *output);
    return GST_FLOW_OK;
}

void write_outputs(const Network& network, GstBuffer* output)
{
    for (guint i = 0; i < gst_buffer_n_memory(output); ++i) {
        GstMapInfo map;
        GstMemory* memory = gst_buffer_peek_memory(output, i);
        if (!gst_memory_map(memory, &map, GST_MAP_WRITE)) throw NetworkError("A tensor could not be mapped.");
        std::memcpy(map.data, network.output(i), map.size);
        gst_memory_unmap(memory, &map);
    }
}

GstFlowReturn run(GstBaseTransform* qnn, GstBuffer* input, GstBuffer* output)
{
    const auto network = network_of(qnn);
    if (!network) return GST_FLOW_FLUSHING;
    GstMapInfo map;
    if (!gst_buffer_map(input, &map, GST_MAP_READ)) {
        GST_ELEMENT_ERROR(qnn, RESOURCE, FAILED, ("A tensor could not be mapped."), (nullptr));
        return GST_FLOW_ERROR;
    }
    std::string failure;
    try {
        const gsize wanted = size_of(network->input().type, network->input().shapes.front());
        if (map.size != wanted)
            throw NetworkError("A tensor of " + std::to_string(map.size) + " bytes came where the model takes " +
                               std::to_string(wanted) + ".");
        network->run(map.data);
        write_outputs(*network, output);
    } catch (const std::exception& error) {
        failure = error.what();
    }
    gst_buffer_unmap(input, &map);
    if (failure.empty()) return GST_FLOW_OK;
    GST_ELEMENT_ERROR(qnn, STREAM, FAILED, ("%s", failure.c_str()), (nullptr));
    return GST_FLOW_ERROR;
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    const gchar* given = g_value_get_string(value);
    const std::string text = given ? given : "";
    if (id == kBackend) GST_DEBUG_OBJECT(object, "models run on the CPU here; %s is not used", text.c_str());
    GST_OBJECT_LOCK(object);
    if (id == kModel) state_of(object).model = text;
    if (id == kBackend) state_of(object).backend = text;
    GST_OBJECT_UNLOCK(object);
    if (id > kBackend) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    GST_OBJECT_LOCK(object);
    if (id == kModel) g_value_set_string(value, state_of(object).model.c_str());
    if (id == kBackend) g_value_set_string(value, state_of(object).backend.c_str());
    GST_OBJECT_UNLOCK(object);
    if (id > kBackend) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VelMlQnn*>(object)->state;
    G_OBJECT_CLASS(vel_ml_qnn_parent_class)->finalize(object);
}

void vel_ml_qnn_init(VelMlQnn* self)
{
    self->state = new MlQnnState;
}

/// Of both pads.
GstCaps* make_tensor_caps()
{
    return gst_caps_from_string("neural-network/tensors,type={(string)UINT8,(string)INT32,(string)FLOAT32}");
}

void install_properties(GObjectClass* klass)
{
    constexpr auto flags =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    g_object_class_install_property(klass, kModel,
                                    g_param_spec_string("model", "Model", "Path of an ONNX file", nullptr, flags));
    g_object_class_install_property(klass, kBackend,
                                    g_param_spec_string("backend", "Backend",
                                                        "Library of the platform; models run on the CPU here", nullptr,
                                                        flags));
}

void vel_ml_qnn_class_init(VelMlQnnClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class);

    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    const CapsPtr caps(make_tensor_caps());
    add_pad_templates(element_class, caps.get(), caps.get());
    gst_element_class_set_static_metadata(element_class, "Model runner", "Filter/Effect", "Runs an ONNX model",
                                          "velstream-gst");

    GstBaseTransformClass* transform_class = GST_BASE_TRANSFORM_CLASS(klass);
    transform_class->passthrough_on_same_caps = FALSE;
    transform_class->start = start;
    transform_class->stop = stop;
    transform_class->transform_caps = transform_caps;
    transform_class->set_caps = set_caps;
    transform_class->get_unit_size = get_unit_size;
    transform_class->transform_size = transform_size;
    transform_class->prepare_output_buffer = prepare_output_buffer;
    transform_class->transform = run;
}

} // namespace

gboolean register_mlqnn(GstPlugin* plugin)
{
    return gst_element_register(plugin, "qtimlqnn", GST_RANK_NONE, vel_ml_qnn_get_type());
}

} // namespace velstream::software

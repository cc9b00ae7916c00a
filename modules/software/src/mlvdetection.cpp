// "qtimlvdetection": a detector's tensors to a transparent picture of boxes and labels.
#include "detection_boxes.h"
#include "detection_mask.h"
#include "elements.h"
#include "frame_convert.h"
#include "pad_templates.h"
#include "software_handles.h"

#include <gst/base/gstbasetransform.h>

#include <cmath>

namespace velstream::software {

namespace {

enum Property : guint { kModule = 1, kLabels, kThreshold, kResults, kConstants };

constexpr double kDefaultThreshold = 50.0;
constexpr guint kDefaultResults = 10;

struct DetectionSettings {
    std::string module, labels;
    std::string constants;                ///< kept for its reader: numbers come as floats here, nothing is quantised
    double threshold = kDefaultThreshold; ///< percent
    guint results = kDefaultResults;
};

struct DetectionState {
    DetectionSettings wanted; ///< guarded by the object lock

    // The rest belongs to the streaming thread; names are read before it starts.
    std::vector<std::string> names;
    std::optional<Tensors> tensors;
    TensorView view;
    GstVideoInfo out{};
    BoxDecoder decoder;
};

struct VelMlDetection {
    GstBaseTransform parent;
    DetectionState* state; ///< owned
};

struct VelMlDetectionClass {
    GstBaseTransformClass parent_class;
};

GType vel_ml_detection_get_type();
G_DEFINE_TYPE(VelMlDetection, vel_ml_detection, GST_TYPE_BASE_TRANSFORM)

DetectionState& state_of(gpointer object)
{
    return *static_cast<VelMlDetection*>(object)->state;
}

DetectionSettings settings_of(gpointer object)
{
    GST_OBJECT_LOCK(object);
    DetectionSettings settings = state_of(object).wanted;
    GST_OBJECT_UNLOCK(object);
    return settings;
}

// ---- Caps
// -----------------------------------------------------------------------------------------------------------------------

constexpr const char* kMaskCaps = "video/x-raw,format={(string)BGRA,(string)RGBA},width=[1,32767],height=[1,32767],"
                                  "framerate=[0/1,2147483647/1];"
                                  "video/x-raw(memory:GBM),format={(string)BGRA,(string)RGBA},width=[1,32767],"
                                  "height=[1,32767],framerate=[0/1,2147483647/1];"
                                  "video/x-raw(ANY),format={(string)BGRA,(string)RGBA},width=[1,32767],"
                                  "height=[1,32767],framerate=[0/1,2147483647/1]";

constexpr const char* kTensorCaps = "neural-network/tensors,type=(string)FLOAT32";

GstCaps* transform_caps(GstBaseTransform*, GstPadDirection direction, GstCaps* caps, GstCaps* filter)
{
    CapsPtr other(gst_caps_from_string(direction == GST_PAD_SINK ? kMaskCaps : kTensorCaps));
    if (direction == GST_PAD_SINK && gst_caps_get_size(caps) == 1) {
        const GValue* rate = gst_structure_get_value(gst_caps_get_structure(caps, 0), "framerate");
        if (rate) gst_caps_set_value(other.get(), "framerate", rate);
    }
    if (filter) other.reset(gst_caps_intersect_full(filter, other.get(), GST_CAPS_INTERSECT_FIRST));
    return other.release();
}

/// A picture of the video's size, where downstream does not choose.
GstCaps* fixate_caps(GstBaseTransform*, GstPadDirection direction, GstCaps* caps, GstCaps* other)
{
    if (direction != GST_PAD_SINK || gst_caps_is_empty(other)) return gst_caps_fixate(other);
    constexpr int kWidth = 1920;
    constexpr int kHeight = 1080;
    const auto view = read_view(caps);
    CapsPtr picked(gst_caps_truncate(gst_caps_make_writable(other)));
    if (gst_caps_features_is_any(gst_caps_get_features(picked.get(), 0)))
        gst_caps_set_features(picked.get(), 0, gst_caps_features_new(GST_CAPS_FEATURE_MEMORY_SYSTEM_MEMORY, nullptr));
    GstStructure* structure = gst_caps_get_structure(picked.get(), 0);
    gst_structure_fixate_field_nearest_int(structure, "width", view ? view->video_width : kWidth);
    gst_structure_fixate_field_nearest_int(structure, "height", view ? view->video_height : kHeight);
    if (gst_structure_has_field(structure, "framerate"))
        gst_structure_fixate_field_nearest_fraction(structure, "framerate", 0, 1);
    return gst_caps_fixate(picked.release());
}

/// Tensors that do not say what they show are taken to show a picture of the mask's size.
TensorView view_of_whole(const GstVideoInfo& out)
{
    const int width = GST_VIDEO_INFO_WIDTH(&out);
    const int height = GST_VIDEO_INFO_HEIGHT(&out);
    return {width, height, {0, 0, width, height}, width, height, {0, 0, width, height}};
}

gboolean set_caps(GstBaseTransform* detection, GstCaps* in_caps, GstCaps* out_caps)
{
    DetectionState& state = state_of(detection);
    state.tensors = read_tensors(in_caps);
    if (!state.tensors || !gst_video_info_from_caps(&state.out, out_caps)) return FALSE;
    state.view = read_view(in_caps).value_or(view_of_whole(state.out));
    const std::string error = state.decoder.configure(settings_of(detection).module, state.tensors->shapes,
                                                      state.view.tensor_width, state.view.tensor_height);
    if (error.empty()) return TRUE;
    GST_ELEMENT_ERROR(detection, STREAM, FORMAT, ("%s", error.c_str()), (nullptr));
    return FALSE;
}

gboolean start(GstBaseTransform* detection)
{
    const DetectionSettings settings = settings_of(detection);
    if (!is_known_module(settings.module)) {
        GST_ELEMENT_ERROR(
            detection, RESOURCE, SETTINGS,
            ("The module \"%s\" is not known; known are %s.", settings.module.c_str(), known_modules().c_str()),
            (nullptr));
        return FALSE;
    }
    state_of(detection).names.clear();
    if (settings.labels.empty()) return TRUE;
    auto names = read_labels(settings.labels);
    if (names)
        state_of(detection).names = std::move(*names);
    else
        GST_ELEMENT_WARNING(detection, RESOURCE, READ,
                            ("The labels \"%s\" cannot be read; classes are shown by number.", settings.labels.c_str()),
                            (nullptr));
    return TRUE;
}

gboolean stop(GstBaseTransform* detection)
{
    state_of(detection).tensors.reset();
    return TRUE;
}

// ---- Frames
// ---------------------------------------------------------------------------------------------------------------------

gboolean get_unit_size(GstBaseTransform*, GstCaps* caps, gsize* size)
{
    GstVideoInfo info;
    if (const auto tensors = read_tensors(caps)) {
        *size = 0;
        for (const Shape& shape : tensors->shapes)
            *size += size_of(tensors->type, shape);
        return TRUE;
    }
    if (!gst_video_info_from_caps(&info, caps)) return FALSE;
    *size = GST_VIDEO_INFO_SIZE(&info);
    return TRUE;
}

gboolean transform_size(GstBaseTransform* detection, GstPadDirection, GstCaps*, gsize, GstCaps* other,
                        gsize* other_size)
{
    return get_unit_size(detection, other, other_size);
}

gboolean decide_allocation(GstBaseTransform* detection, GstQuery* query)
{
    if (!put_frame_pool(query)) return FALSE;
    return GST_BASE_TRANSFORM_CLASS(vel_ml_detection_parent_class)->decide_allocation(detection, query);
}

/// The tensors of a buffer, one memory each, mapped for the life of this.
class MappedTensors {
public:
    MappedTensors(GstBuffer* buffer, const Tensors& tensors)
    {
        if (gst_buffer_n_memory(buffer) != tensors.shapes.size()) return;
        maps_.resize(tensors.shapes.size());
        for (std::size_t i = 0; i < maps_.size(); ++i) {
            GstMemory* memory = gst_buffer_peek_memory(buffer, static_cast<guint>(i));
            if (!gst_memory_map(memory, &maps_[i], GST_MAP_READ)) return;
            ++mapped_;
            if (maps_[i].size != size_of(tensors.type, tensors.shapes[i])) return;
            numbers_.push_back(reinterpret_cast<const float*>(maps_[i].data));
        }
    }
    ~MappedTensors()
    {
        for (std::size_t i = 0; i < mapped_; ++i)
            gst_memory_unmap(maps_[i].memory, &maps_[i]);
    }
    MappedTensors(const MappedTensors&) = delete;
    MappedTensors& operator=(const MappedTensors&) = delete;

    /// Whether there are as many tensors as there should be, and of their sizes.
    explicit operator bool() const { return !maps_.empty() && numbers_.size() == maps_.size(); }
    std::span<const float* const> numbers() const { return numbers_; }

private:
    std::vector<GstMapInfo> maps_;
    std::size_t mapped_ = 0;
    std::vector<const float*> numbers_;
};

/// From the tensor's pixels to those of the mask.
Rectangle on_mask(const cv::Rect2f& box, const TensorView& view, const GstVideoInfo& out)
{
    const auto map = [](double position, int place, int place_size, int source, int source_size, int video, int mask) {
        const double on_video = source + (position - place) * source_size / place_size;
        return static_cast<int>(std::lround(std::clamp(on_video, 0.0, double{1} * video) * mask / video));
    };
    const auto x = [&](double position) {
        return map(position, view.place.x, view.place.width, view.source.x, view.source.width, view.video_width,
                   GST_VIDEO_INFO_WIDTH(&out));
    };
    const auto y = [&](double position) {
        return map(position, view.place.y, view.place.height, view.source.y, view.source.height, view.video_height,
                   GST_VIDEO_INFO_HEIGHT(&out));
    };
    const int left = x(box.x);
    const int top = y(box.y);
    return {left, top, x(double{box.x} + box.width) - left, y(double{box.y} + box.height) - top};
}

std::string label_text(const std::vector<std::string>& names, const DetectedBox& box)
{
    const bool is_named = box.label >= 0 && static_cast<std::size_t>(box.label) < names.size() &&
                          !names[static_cast<std::size_t>(box.label)].empty();
    const std::string name =
        is_named ? names[static_cast<std::size_t>(box.label)] : "class " + std::to_string(box.label);
    return name + " " + std::to_string(std::lround(100.0 * box.score)) + "%";
}

std::vector<LabelledBox> find_boxes(GstBaseTransform* detection, std::span<const float* const> numbers)
{
    DetectionState& state = state_of(detection);
    GST_OBJECT_LOCK(detection);
    const auto threshold = static_cast<float>(state.wanted.threshold / 100.0);
    const guint results = state.wanted.results;
    GST_OBJECT_UNLOCK(detection);
    std::vector<LabelledBox> boxes;
    for (const DetectedBox& box : pick_best(state.decoder.decode(numbers, threshold), results)) {
        const Rectangle area = on_mask(box.area, state.view, state.out);
        if (area.width > 0 && area.height > 0) boxes.push_back({area, box.label, label_text(state.names, box)});
    }
    return boxes;
}

GstFlowReturn draw(GstBaseTransform* detection, GstBuffer* input, GstBuffer* output)
{
    DetectionState& state = state_of(detection);
    if (!state.tensors) return GST_FLOW_NOT_NEGOTIATED;
    const MappedTensors tensors(input, *state.tensors);
    if (!tensors) {
        GST_ELEMENT_ERROR(detection, STREAM, FORMAT,
                          ("A buffer does not hold the tensors %s.", text_of(state.tensors->shapes).c_str()),
                          (nullptr));
        return GST_FLOW_ERROR;
    }
    const MappedFrame frame(state.out, output, GST_MAP_WRITE);
    if (!frame) {
        GST_ELEMENT_ERROR(detection, RESOURCE, FAILED, ("A video frame could not be mapped."), (nullptr));
        return GST_FLOW_ERROR;
    }
    try {
        draw_mask(picture_of(frame.get()), find_boxes(detection, tensors.numbers()));
    } catch (const std::exception& error) {
        GST_ELEMENT_ERROR(detection, STREAM, FAILED, ("The model's output cannot be read: %s", error.what()),
                          (nullptr));
        return GST_FLOW_ERROR;
    }
    return GST_FLOW_OK;
}

gboolean transform_meta(GstBaseTransform*, GstBuffer*, GstMeta* meta, GstBuffer*)
{
    return is_kept_by_conversion(*meta);
}

// ---- The element
// ----------------------------------------------------------------------------------------------------------------

std::string text_in(const GValue* value)
{
    const gchar* text = g_value_get_string(value);
    return text ? text : "";
}

bool store_property(DetectionSettings& wanted, guint id, const GValue* value)
{
    switch (id) {
    case kModule:
        wanted.module = text_in(value);
        return true;
    case kLabels:
        wanted.labels = text_in(value);
        return true;
    case kThreshold:
        wanted.threshold = g_value_get_double(value);
        return true;
    case kResults:
        wanted.results = g_value_get_uint(value);
        return true;
    case kConstants:
        wanted.constants = text_in(value);
        return true;
    default:
        return false;
    }
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    GST_OBJECT_LOCK(object);
    const bool is_known = store_property(state_of(object).wanted, id, value);
    GST_OBJECT_UNLOCK(object);
    if (!is_known) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    const DetectionSettings settings = settings_of(object);
    if (id == kModule) g_value_set_string(value, settings.module.c_str());
    if (id == kLabels) g_value_set_string(value, settings.labels.c_str());
    if (id == kThreshold) g_value_set_double(value, settings.threshold);
    if (id == kResults) g_value_set_uint(value, settings.results);
    if (id == kConstants) g_value_set_string(value, settings.constants.c_str());
    if (id > kConstants) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void finalize(GObject* object)
{
    delete reinterpret_cast<VelMlDetection*>(object)->state;
    G_OBJECT_CLASS(vel_ml_detection_parent_class)->finalize(object);
}

void vel_ml_detection_init(VelMlDetection* self)
{
    self->state = new DetectionState;
}

void install_properties(GObjectClass* klass)
{
    constexpr auto ready =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_READY);
    constexpr auto playing =
        static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS | GST_PARAM_MUTABLE_PLAYING);
    const auto install = [klass](guint id, GParamSpec* spec) { g_object_class_install_property(klass, id, spec); };
    install(kModule, g_param_spec_string("module", "Module", "How the model writes its boxes: ssd, yolov5 or yolov8",
                                         nullptr, ready));
    install(kLabels, g_param_spec_string("labels", "Labels", "File with the name of one class a line, class 0 first",
                                         nullptr, ready));
    install(kThreshold, g_param_spec_double("threshold", "Threshold", "Least confidence of what is shown, in percent",
                                            0.0, 100.0, kDefaultThreshold, playing));
    install(kResults, g_param_spec_uint("results", "Results", "Most boxes in one picture", 0, G_MAXUINT,
                                        kDefaultResults, playing));
    install(kConstants,
            g_param_spec_string("constants", "Constants", "Of quantised models on the platform; without effect here",
                                nullptr, ready));
}

void vel_ml_detection_class_init(VelMlDetectionClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize;
    install_properties(object_class);

    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    const CapsPtr tensors(gst_caps_from_string(kTensorCaps));
    const CapsPtr mask(gst_caps_from_string(kMaskCaps));
    add_pad_templates(element_class, tensors.get(), mask.get());
    gst_element_class_set_static_metadata(element_class, "Detection picture", "Filter/Converter/Video",
                                          "Draws what a detector found on a transparent picture", "velstream-gst");

    GstBaseTransformClass* transform_class = GST_BASE_TRANSFORM_CLASS(klass);
    transform_class->passthrough_on_same_caps = FALSE;
    transform_class->start = start;
    transform_class->stop = stop;
    transform_class->transform_caps = transform_caps;
    transform_class->fixate_caps = fixate_caps;
    transform_class->set_caps = set_caps;
    transform_class->get_unit_size = get_unit_size;
    transform_class->transform_size = transform_size;
    transform_class->decide_allocation = decide_allocation;
    transform_class->transform_meta = transform_meta;
    transform_class->transform = draw;
}

} // namespace

gboolean register_mlvdetection(GstPlugin* plugin)
{
    return gst_element_register(plugin, "qtimlvdetection", GST_RANK_NONE, vel_ml_detection_get_type());
}

} // namespace velstream::software

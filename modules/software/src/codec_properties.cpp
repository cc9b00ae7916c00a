#include "codec_properties.h"

namespace velstream::software {

namespace {

enum V4l2Index : guint { kDevice, kDeviceName, kDeviceFd, kCaptureIoMode, kOutputIoMode, kExtraControls };

constexpr auto kReadable = static_cast<GParamFlags>(G_PARAM_READABLE | G_PARAM_STATIC_STRINGS);
constexpr auto kReadWrite = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);

void set_extra_controls(V4l2Values& values, const GValue* value)
{
    g_clear_pointer(&values.extra_controls, gst_structure_free);
    const auto* controls = static_cast<const GstStructure*>(g_value_get_boxed(value));
    if (controls) values.extra_controls = gst_structure_copy(controls);
}

} // namespace

GType io_mode_type()
{
    static const GEnumValue modes[] = {
        {0, "GST_V4L2_IO_AUTO", "auto"},
        {1, "GST_V4L2_IO_RW", "rw"},
        {2, "GST_V4L2_IO_MMAP", "mmap"},
        {3, "GST_V4L2_IO_USERPTR", "userptr"},
        {4, "GST_V4L2_IO_DMABUF", "dmabuf"},
        {5, "GST_V4L2_IO_DMABUF_IMPORT", "dmabuf-import"},
        {0, nullptr, nullptr},
    };
    static const GType type = g_enum_register_static("VelSoftwareIoMode", modes);
    return type;
}

Codec codec_of(const GstCaps* caps)
{
    if (gst_caps_is_any(caps) || gst_caps_is_empty(caps)) return Codec::h264;
    return gst_structure_has_name(gst_caps_get_structure(caps, 0), "video/x-h265") ? Codec::h265 : Codec::h264;
}

void install_v4l2_properties(GObjectClass* klass, guint first_id)
{
    const auto install = [&](V4l2Index index, GParamSpec* pspec) {
        g_object_class_install_property(klass, first_id + index, pspec);
    };
    install(kDevice, g_param_spec_string("device", "Device", "Always empty: no device is behind this element", nullptr,
                                         kReadable));
    install(kDeviceName, g_param_spec_string("device-name", "Device name", "What does the work", nullptr, kReadable));
    install(kDeviceFd, g_param_spec_int("device-fd", "File descriptor", "Always -1: no device is behind this element",
                                        -1, G_MAXINT, -1, kReadable));
    install(kCaptureIoMode, g_param_spec_enum("capture-io-mode", "Capture IO mode",
                                              "Accepted and without effect: frames are in system memory",
                                              io_mode_type(), 0, kReadWrite));
    install(kOutputIoMode, g_param_spec_enum("output-io-mode", "Output IO mode",
                                             "Accepted and without effect: frames are in system memory", io_mode_type(),
                                             0, kReadWrite));
    install(kExtraControls,
            g_param_spec_boxed("extra-controls", "Extra controls",
                               "V4L2 controls; encoders honour video_bitrate (bit/s) and video_gop_size "
                               "(frames), others are ignored",
                               GST_TYPE_STRUCTURE, kReadWrite));
}

bool set_v4l2_property(GstObject* object, V4l2Values& values, guint index, const GValue* value)
{
    GST_OBJECT_LOCK(object);
    bool is_known = true;
    switch (index) {
    case kCaptureIoMode:
        values.capture_io_mode = g_value_get_enum(value);
        break;
    case kOutputIoMode:
        values.output_io_mode = g_value_get_enum(value);
        break;
    case kExtraControls:
        set_extra_controls(values, value);
        break;
    default:
        is_known = false;
    }
    GST_OBJECT_UNLOCK(object);
    return is_known;
}

bool get_v4l2_property(GstObject* object, const V4l2Values& values, guint index, GValue* value)
{
    GST_OBJECT_LOCK(object);
    bool is_known = true;
    switch (index) {
    case kDevice:
        g_value_set_string(value, nullptr);
        break;
    case kDeviceName:
        g_value_set_static_string(value, "software codec");
        break;
    case kDeviceFd:
        g_value_set_int(value, -1);
        break;
    case kCaptureIoMode:
        g_value_set_enum(value, values.capture_io_mode);
        break;
    case kOutputIoMode:
        g_value_set_enum(value, values.output_io_mode);
        break;
    case kExtraControls:
        g_value_set_boxed(value, values.extra_controls);
        break;
    default:
        is_known = false;
    }
    GST_OBJECT_UNLOCK(object);
    return is_known;
}

} // namespace velstream::software

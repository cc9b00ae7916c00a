// What the V4L2 codec elements share: the io-mode enum, and the properties that only describe or place memory.
#pragma once

#include <gst/gst.h>

namespace velstream::software {

enum class Codec { h264, h265 };

/// The enum of "capture-io-mode" and "output-io-mode", with the numbers and nicks of the V4L2 elements.
GType io_mode_type();

/// The codec that a caps describes by its first structure; H.264 where it is neither.
Codec codec_of(const GstCaps* caps);

/// Values of the properties that an element of the V4L2 kind keeps; guarded by the element's object lock.
struct V4l2Values {
    int capture_io_mode = 0;                ///< accepted and without effect: frames are in system memory here
    int output_io_mode = 0;                 ///< likewise
    GstStructure* extra_controls = nullptr; ///< owned; null: none
};

/// Installs "device", "device-name", "device-fd", "capture-io-mode", "output-io-mode", "extra-controls" from `first_id`
/// on.
void install_v4l2_properties(GObjectClass* klass, guint first_id);

/// Sets one of these properties. @return false: `index` (the id less `first_id`) is none that can be set
bool set_v4l2_property(GstObject* object, V4l2Values& values, guint index, const GValue* value);

/// Reads one of these properties. @return false: `index` is none of them
bool get_v4l2_property(GstObject* object, const V4l2Values& values, guint index, GValue* value);

inline constexpr guint kV4l2PropertyCount = 6;

} // namespace velstream::software

// What the library's sources own, and how they make and map it.
#pragma once

#include "gst_handles.h"

namespace Quorvis::VelStream {

using namespace velstream::handles;

/// Makes an element and sinks its floating reference: the handle owns it before and after a bin takes its own.
/// Null when the factory is missing; the log names it.
ElementPtr make_element(const char* factory, const char* name = nullptr);

/// A buffer mapped for the life of this object. It takes no reference: a further one would make the buffer unwritable.
/// A buffer that is shared is not mapped for writing, since others may be reading it.
class MappedBuffer {
public:
    MappedBuffer(GstBuffer* buffer, GstMapFlags flags) : buffer_(buffer)
    {
        const bool is_allowed = buffer_ && (!(flags & GST_MAP_WRITE) || gst_buffer_is_writable(buffer_));
        is_mapped_ = is_allowed && gst_buffer_map(buffer_, &info_, flags);
    }
    ~MappedBuffer()
    {
        if (is_mapped_) gst_buffer_unmap(buffer_, &info_);
    }
    MappedBuffer(const MappedBuffer&) = delete;
    MappedBuffer& operator=(const MappedBuffer&) = delete;

    explicit operator bool() const { return is_mapped_; }
    guint8* data() const { return info_.data; }
    gsize size() const { return info_.size; }

private:
    GstBuffer* buffer_;
    GstMapInfo info_ = GST_MAP_INFO_INIT;
    bool is_mapped_ = false;
};

} // namespace Quorvis::VelStream

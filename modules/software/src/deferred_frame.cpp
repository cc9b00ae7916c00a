#include "deferred_frame.h"

#include <libyuv.h>

namespace velstream::software {

namespace {

struct DeferredMemory {
    GstMemory parent;
    GMutex mutex;          ///< guards what follows
    GstBuffer* planes;     ///< owned; null: the NV12 frame was written to
    uint8_t* nv12;         ///< owned; null: nobody has read it yet
    GstVideoInfo in_info;  ///< of `planes`
    GstVideoInfo out_info; ///< of `nv12`
};

struct VelDeferredAllocator {
    GstAllocator parent;
};

struct VelDeferredAllocatorClass {
    GstAllocatorClass parent_class;
};

GType vel_deferred_allocator_get_type();
G_DEFINE_TYPE(VelDeferredAllocator, vel_deferred_allocator, GST_TYPE_ALLOCATOR)

DeferredMemory* deferred_of(GstMemory* memory)
{
    return reinterpret_cast<DeferredMemory*>(memory);
}

bool convert(const DeferredMemory& memory, uint8_t* nv12)
{
    const MappedFrame frame(memory.in_info, memory.planes, GST_MAP_READ);
    if (!frame) return false;
    const GstVideoFrame& in = frame.get();
    const auto plane = [&in](guint index) {
        return static_cast<const uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&in, index));
    };
    const auto stride = [&in](guint index) { return GST_VIDEO_FRAME_PLANE_STRIDE(&in, index); };
    const GstVideoInfo& out = memory.out_info;
    return libyuv::I420ToNV12(plane(0), stride(0), plane(1), stride(1), plane(2), stride(2),
                              nv12 + GST_VIDEO_INFO_PLANE_OFFSET(&out, 0), GST_VIDEO_INFO_PLANE_STRIDE(&out, 0),
                              nv12 + GST_VIDEO_INFO_PLANE_OFFSET(&out, 1), GST_VIDEO_INFO_PLANE_STRIDE(&out, 1),
                              GST_VIDEO_INFO_WIDTH(&out), GST_VIDEO_INFO_HEIGHT(&out)) == 0;
}

gpointer map(GstMemory* base, gsize size, GstMapFlags flags)
{
    DeferredMemory* memory = deferred_of(base);
    g_mutex_lock(&memory->mutex);
    if (!memory->nv12) {
        auto* nv12 = static_cast<uint8_t*>(g_malloc(size));
        if (convert(*memory, nv12))
            memory->nv12 = nv12;
        else
            g_free(nv12);
    }
    if (memory->nv12 && (flags & GST_MAP_WRITE)) gst_clear_buffer(&memory->planes);
    uint8_t* nv12 = memory->nv12;
    g_mutex_unlock(&memory->mutex);
    return nv12;
}

void unmap(GstMemory*) {}

GstMemory* allocate(GstAllocator*, gsize, GstAllocationParams*)
{
    return nullptr; // only make_deferred_frame() makes them
}

void release(GstAllocator*, GstMemory* base)
{
    DeferredMemory* memory = deferred_of(base);
    gst_clear_buffer(&memory->planes);
    g_free(memory->nv12);
    g_mutex_clear(&memory->mutex);
    delete memory;
}

void vel_deferred_allocator_class_init(VelDeferredAllocatorClass* klass)
{
    GST_ALLOCATOR_CLASS(klass)->alloc = allocate;
    GST_ALLOCATOR_CLASS(klass)->free = release;
}

void vel_deferred_allocator_init(VelDeferredAllocator* self)
{
    GstAllocator* allocator = GST_ALLOCATOR(self);
    allocator->mem_type = "VelDeferredFrame";
    allocator->mem_map = map;
    allocator->mem_unmap = unmap;
    GST_OBJECT_FLAG_SET(self, GST_ALLOCATOR_FLAG_CUSTOM_ALLOC);
}

/// Lives as long as the process: its frames may outlive every element.
GstAllocator* deferred_allocator()
{
    static GstAllocator* const allocator = [] {
        auto* made = GST_ALLOCATOR(gst_object_ref_sink(g_object_new(vel_deferred_allocator_get_type(), nullptr)));
        GST_OBJECT_FLAG_SET(made, GST_OBJECT_FLAG_MAY_BE_LEAKED);
        return made;
    }();
    return allocator;
}

/// The one whole deferred memory of `buffer`, borrowed; null where it has another.
DeferredMemory* whole_memory_of(GstBuffer* buffer)
{
    if (gst_buffer_n_memory(buffer) != 1) return nullptr;
    GstMemory* memory = gst_buffer_peek_memory(buffer, 0);
    return memory->allocator == deferred_allocator() && memory->offset == 0 && memory->size == memory->maxsize
               ? deferred_of(memory)
               : nullptr;
}

} // namespace

BufferPtr make_deferred_frame(GstBuffer* planes, const GstVideoInfo& planes_info, const GstVideoInfo& info)
{
    auto* memory = new DeferredMemory{};
    // A part of it shares no bytes that are not there yet: whoever wants a part gets a copy.
    gst_memory_init(&memory->parent, GST_MEMORY_FLAG_NO_SHARE, deferred_allocator(), nullptr,
                    GST_VIDEO_INFO_SIZE(&info), 0, 0, GST_VIDEO_INFO_SIZE(&info));
    g_mutex_init(&memory->mutex);
    memory->planes = gst_buffer_ref(planes);
    memory->in_info = planes_info;
    memory->out_info = info;
    BufferPtr buffer(gst_buffer_new());
    gst_buffer_append_memory(buffer.get(), &memory->parent);
    return buffer;
}

bool is_deferred_frame(GstBuffer* buffer)
{
    return whole_memory_of(buffer) != nullptr;
}

std::optional<DeferredPlanes> planes_of(GstBuffer* buffer)
{
    DeferredMemory* memory = whole_memory_of(buffer);
    if (!memory) return std::nullopt;
    g_mutex_lock(&memory->mutex);
    BufferPtr planes(memory->planes ? gst_buffer_ref(memory->planes) : nullptr);
    g_mutex_unlock(&memory->mutex);
    if (!planes) return std::nullopt;
    return DeferredPlanes{std::move(planes), memory->in_info};
}

} // namespace velstream::software

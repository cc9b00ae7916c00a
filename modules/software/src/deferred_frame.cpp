#include "deferred_frame.h"

#include <memory>
#include <mutex>
#include <utility>

namespace velstream::software {

namespace {

struct DeferredMemory : GstMemory {
    std::mutex mutex;                ///< guards the next two
    BufferPtr planes;                ///< empty: the frame was written to
    std::unique_ptr<uint8_t[]> data; ///< empty: nobody has read it yet
    GstVideoInfo in_info;            ///< of `planes`
    GstVideoInfo out_info;           ///< of `data`
    LayoutCopy copy;
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
    return static_cast<DeferredMemory*>(memory);
}

/// The frame in its layout; empty where the planes cannot be mapped.
std::unique_ptr<uint8_t[]> convert(const DeferredMemory& memory)
{
    const MappedFrame in(memory.in_info, memory.planes.get(), GST_MAP_READ);
    if (!in) return nullptr;
    auto data = std::make_unique_for_overwrite<uint8_t[]>(memory.maxsize);
    GstVideoFrame out{};
    out.info = memory.out_info;
    for (guint plane = 0; plane < GST_VIDEO_INFO_N_PLANES(&out.info); ++plane)
        out.data[plane] = data.get() + GST_VIDEO_INFO_PLANE_OFFSET(&out.info, plane);
    return memory.copy(in.get(), out) == 0 ? std::move(data) : nullptr;
}

gpointer map(GstMemory* base, gsize, GstMapFlags flags)
{
    DeferredMemory* memory = deferred_of(base);
    const std::lock_guard lock(memory->mutex);
    if (!memory->data) memory->data = convert(*memory);
    if (memory->data && (flags & GST_MAP_WRITE)) memory->planes.reset();
    return memory->data.get();
}

void unmap(GstMemory*) {}

GstMemory* allocate(GstAllocator*, gsize, GstAllocationParams*)
{
    return nullptr; // only make_deferred_frame() makes them
}

void release(GstAllocator*, GstMemory* memory)
{
    delete deferred_of(memory);
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

BufferPtr make_deferred_frame(GstBuffer* planes, const GstVideoInfo& planes_info, const GstVideoInfo& info,
                              LayoutCopy copy)
{
    auto* memory = new DeferredMemory{};
    // A part of it shares no bytes that are not there yet: whoever wants a part gets a copy.
    gst_memory_init(memory, GST_MEMORY_FLAG_NO_SHARE, deferred_allocator(), nullptr, GST_VIDEO_INFO_SIZE(&info), 0, 0,
                    GST_VIDEO_INFO_SIZE(&info));
    memory->planes.reset(gst_buffer_ref(planes));
    memory->in_info = planes_info;
    memory->out_info = info;
    memory->copy = copy;
    BufferPtr buffer(gst_buffer_new());
    gst_buffer_append_memory(buffer.get(), memory);
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
    const std::lock_guard lock(memory->mutex);
    if (!memory->planes) return std::nullopt;
    return DeferredPlanes{BufferPtr(gst_buffer_ref(memory->planes.get())), memory->in_info};
}

} // namespace velstream::software

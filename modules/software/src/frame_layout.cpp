#include "frame_layout.h"

namespace velstream::software {

namespace {

constexpr int kRgbBytes = 3;

struct VelTightPool {
    GstBufferPool parent;
    GstVideoInfo stock; ///< of the configured caps, GStreamer's layout; written by set_config, before buffers exist
    GstVideoInfo tight; ///< the same with tight rows
};

struct VelTightPoolClass {
    GstBufferPoolClass parent_class;
};

GType vel_tight_pool_get_type();
G_DEFINE_TYPE(VelTightPool, vel_tight_pool, GST_TYPE_BUFFER_POOL)

VelTightPool* pool_of(GstBufferPool* pool)
{
    return reinterpret_cast<VelTightPool*>(pool);
}

const gchar** get_options(GstBufferPool*)
{
    static const gchar* options[] = {GST_BUFFER_POOL_OPTION_VIDEO_META, nullptr};
    return options;
}

gboolean set_config(GstBufferPool* pool, GstStructure* config)
{
    VelTightPool* self = pool_of(pool);
    GstCaps* caps = nullptr;
    guint min_buffers = 0;
    guint max_buffers = 0;
    if (!gst_buffer_pool_config_get_params(config, &caps, nullptr, &min_buffers, &max_buffers)) return FALSE;
    GstVideoInfo info;
    if (!caps || !gst_video_info_from_caps(&info, caps) || !has_tight_layout(GST_VIDEO_INFO_FORMAT(&info)))
        return FALSE;
    self->stock = info;
    self->tight = info;
    make_layout_tight(self->tight);
    gst_buffer_pool_config_set_params(config, caps, static_cast<guint>(tight_frame_size(info)), min_buffers,
                                      max_buffers);
    return GST_BUFFER_POOL_CLASS(vel_tight_pool_parent_class)->set_config(pool, config);
}

/// The memory holds GStreamer's layout too: a writer that ignores the meta makes a sheared picture, not an overflow.
GstFlowReturn alloc_buffer(GstBufferPool* pool, GstBuffer** buffer, GstBufferPoolAcquireParams*)
{
    const VelTightPool* self = pool_of(pool);
    *buffer = gst_buffer_new_allocate(nullptr, GST_VIDEO_INFO_SIZE(&self->stock), nullptr);
    if (!*buffer) return GST_FLOW_ERROR;
    announce_tight_rows(*buffer, self->tight);
    return GST_FLOW_OK;
}

void vel_tight_pool_init(VelTightPool* self)
{
    gst_video_info_init(&self->stock);
    gst_video_info_init(&self->tight);
}

void vel_tight_pool_class_init(VelTightPoolClass* klass)
{
    GstBufferPoolClass* pool_class = GST_BUFFER_POOL_CLASS(klass);
    pool_class->get_options = get_options;
    pool_class->set_config = set_config;
    pool_class->alloc_buffer = alloc_buffer;
}

} // namespace

bool has_tight_layout(GstVideoFormat format)
{
    return format == GST_VIDEO_FORMAT_RGB || format == GST_VIDEO_FORMAT_BGR;
}

void make_layout_tight(GstVideoInfo& info)
{
    if (!has_tight_layout(GST_VIDEO_INFO_FORMAT(&info))) return;
    info.stride[0] = kRgbBytes * GST_VIDEO_INFO_WIDTH(&info);
    info.offset[0] = 0;
    info.size = static_cast<gsize>(info.stride[0]) * static_cast<gsize>(GST_VIDEO_INFO_HEIGHT(&info));
}

gsize tight_frame_size(const GstVideoInfo& info)
{
    GstVideoInfo tight = info;
    make_layout_tight(tight);
    return GST_VIDEO_INFO_SIZE(&tight);
}

bool has_tight_rows(GstBuffer* buffer, const GstVideoInfo& info)
{
    const GstVideoMeta* meta = gst_buffer_get_video_meta(buffer);
    const int stride = meta ? meta->stride[0] : GST_VIDEO_INFO_PLANE_STRIDE(&info, 0);
    return stride == kRgbBytes * GST_VIDEO_INFO_WIDTH(&info);
}

void announce_tight_rows(GstBuffer* buffer, const GstVideoInfo& info)
{
    GstVideoInfo tight = info;
    make_layout_tight(tight);
    gst_buffer_set_size(buffer, static_cast<gssize>(GST_VIDEO_INFO_SIZE(&tight)));
    while (GstVideoMeta* old = gst_buffer_get_video_meta(buffer))
        gst_buffer_remove_meta(buffer, &old->meta);
    gst_buffer_add_video_meta_full(buffer, GST_VIDEO_FRAME_FLAG_NONE, GST_VIDEO_INFO_FORMAT(&tight),
                                   static_cast<guint>(GST_VIDEO_INFO_WIDTH(&tight)),
                                   static_cast<guint>(GST_VIDEO_INFO_HEIGHT(&tight)), GST_VIDEO_INFO_N_PLANES(&tight),
                                   tight.offset, tight.stride);
}

GstBufferPool* make_tight_pool(GstCaps* caps, guint min_buffers, guint max_buffers)
{
    auto* pool = GST_BUFFER_POOL(gst_object_ref_sink(g_object_new(vel_tight_pool_get_type(), nullptr)));
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, caps, 0, min_buffers, max_buffers);
    gst_buffer_pool_config_add_option(config, GST_BUFFER_POOL_OPTION_VIDEO_META);
    if (gst_buffer_pool_set_config(pool, config)) return pool;
    gst_object_unref(pool);
    return nullptr;
}

bool is_tight_pool(GstBufferPool* pool)
{
    return G_TYPE_CHECK_INSTANCE_TYPE(pool, vel_tight_pool_get_type());
}

} // namespace velstream::software

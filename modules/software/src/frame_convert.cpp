#include "frame_convert.h"

#include "deferred_frame.h"
#include "frame_layout.h"
#include "software_handles.h"

namespace velstream::software {

namespace {

GstBufferPool* make_plain_pool(GstCaps* caps, const GstVideoInfo& info, guint min_buffers)
{
    BufferPoolPtr pool(gst_video_buffer_pool_new());
    GstStructure* config = gst_buffer_pool_get_config(pool.get());
    gst_buffer_pool_config_set_params(config, caps, static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)), min_buffers, 0);
    return gst_buffer_pool_set_config(pool.get(), config) ? pool.release() : nullptr;
}

/// Puts a pool of tight rows where downstream offers none, or another one.
void put_tight_pool(GstQuery* query, GstCaps* caps, const GstVideoInfo& info)
{
    guint min_buffers = 0;
    if (gst_query_get_n_allocation_pools(query) > 0) {
        GstBufferPool* offered = nullptr;
        gst_query_parse_nth_allocation_pool(query, 0, &offered, nullptr, &min_buffers, nullptr);
        const BufferPoolPtr owner(offered);
        if (offered && is_tight_pool(offered)) return;
    }
    while (gst_query_get_n_allocation_pools(query) > 0)
        gst_query_remove_nth_allocation_pool(query, 0);
    const BufferPoolPtr pool(make_tight_pool(caps, min_buffers, 0));
    if (pool)
        gst_query_add_allocation_pool(query, pool.get(), static_cast<guint>(tight_frame_size(info)), min_buffers, 0);
}

/// Reuses frames where downstream has no pool.
void put_plain_pool(GstQuery* query, GstCaps* caps, const GstVideoInfo& info)
{
    if (gst_query_get_n_allocation_pools(query) > 0) return;
    const BufferPoolPtr pool(make_plain_pool(caps, info, 0));
    if (pool) gst_query_add_allocation_pool(query, pool.get(), static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)), 0, 0);
}

gboolean copy_kept_meta(GstBuffer* input, GstMeta** meta, gpointer output)
{
    if (!is_kept_by_conversion(**meta) || !(*meta)->info->transform_func) return TRUE;
    GstMetaTransformCopy whole{FALSE, 0, static_cast<gsize>(-1)};
    (*meta)->info->transform_func(static_cast<GstBuffer*>(output), *meta, input, _gst_meta_transform_copy, &whole);
    return TRUE;
}

} // namespace

GstVideoInfo input_layout(GstBuffer* buffer, const GstVideoInfo& info)
{
    GstVideoInfo layout = info;
    const gsize size = gst_buffer_get_size(buffer);
    if (!gst_buffer_get_video_meta(buffer) && size < GST_VIDEO_INFO_SIZE(&info) && size >= tight_frame_size(info))
        make_layout_tight(layout);
    return layout;
}

void settle_output_layout(GstBuffer* buffer, const GstVideoInfo& info)
{
    if (!has_tight_layout(GST_VIDEO_INFO_FORMAT(&info))) return;
    if (!gst_buffer_get_video_meta(buffer) || !has_tight_rows(buffer, info)) announce_tight_rows(buffer, info);
}

bool convert_frame(FrameTransformer& transformer, const GstVideoInfo& in_info, GstBuffer* input,
                   const GstVideoInfo& out_info, GstBuffer* output)
{
    settle_output_layout(output, out_info);
    const std::optional<DeferredPlanes> planes = planes_of(input);
    const MappedFrame in(planes ? planes->info : input_layout(input, in_info), planes ? planes->buffer.get() : input,
                         GST_MAP_READ);
    const MappedFrame out(out_info, output, GST_MAP_WRITE);
    if (!in || !out) return false;
    transformer.run(picture_of(in.get()), picture_of(out.get()));
    return true;
}

bool is_kept_by_conversion(const GstMeta& meta)
{
    static const gchar* kept_tags[] = {GST_META_TAG_VIDEO_STR, nullptr};
    const gchar* const* tags = gst_meta_api_type_get_tags(meta.info->api);
    return !tags || (g_strv_length(const_cast<gchar**>(tags)) == 1 && g_strv_contains(kept_tags, tags[0]));
}

void copy_frame_metadata(GstBuffer* input, GstBuffer* output)
{
    gst_buffer_copy_into(output, input,
                         static_cast<GstBufferCopyFlags>(GST_BUFFER_COPY_FLAGS | GST_BUFFER_COPY_TIMESTAMPS), 0,
                         static_cast<gsize>(-1));
    gst_buffer_foreach_meta(input, copy_kept_meta, output);
}

GstBufferPool* make_frame_pool(GstCaps* caps, guint min_buffers)
{
    GstVideoInfo info;
    if (!gst_video_info_from_caps(&info, caps)) return nullptr;
    return has_tight_layout(GST_VIDEO_INFO_FORMAT(&info)) ? make_tight_pool(caps, min_buffers, 0)
                                                          : make_plain_pool(caps, info, min_buffers);
}

bool put_frame_pool(GstQuery* query)
{
    GstCaps* caps = nullptr;
    gst_query_parse_allocation(query, &caps, nullptr);
    GstVideoInfo info;
    if (!caps || !gst_video_info_from_caps(&info, caps)) return false;
    if (has_tight_layout(GST_VIDEO_INFO_FORMAT(&info)))
        put_tight_pool(query, caps, info);
    else
        put_plain_pool(query, caps, info);
    return true;
}

} // namespace velstream::software

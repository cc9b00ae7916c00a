// What the converting elements do around one frame: memory for it, its layout, its times and metas.
#pragma once

#include "vtransform_geometry.h"

namespace velstream::software {

/// RGB rows without a GstVideoMeta are GStreamer's, unless the buffer only holds tight ones.
GstVideoInfo input_layout(GstBuffer* buffer, const GstVideoInfo& info);

/// Makes a writable output buffer of `info` tight where its format is RGB or BGR and it does not say so yet.
void settle_output_layout(GstBuffer* buffer, const GstVideoInfo& info);

/**
 * Converts the pixels of `input` into `output`, which is writable and of the size of `out_info`.
 * @param transformer  configured for both
 * @return false: a frame cannot be mapped
 */
bool convert_frame(FrameTransformer& transformer, const GstVideoInfo& in_info, GstBuffer* input,
                   const GstVideoInfo& out_info, GstBuffer* output);

/// Whether a meta speaks of the video in general, not of memory, size or colours.
bool is_kept_by_conversion(const GstMeta& meta);

/// Gives `output` the times, flags and kept metas of `input`.
void copy_frame_metadata(GstBuffer* input, GstBuffer* output);

/**
 * A pool of frames for `caps`, tight ones where the format is RGB or BGR.
 * @return owned by the caller; configured, not active. Null: `caps` are no video
 */
GstBufferPool* make_frame_pool(GstCaps* caps, guint min_buffers);

/// Answers an ALLOCATION query with a pool of the own frames where downstream offers none that will do.
/// @return false: its caps are no video
bool put_frame_pool(GstQuery* query);

} // namespace velstream::software

#include "StreamBuildSplice.h"

#include <gst/app/gstappsrc.h>

#include <cstring>

namespace Quorvis::VelStream {

namespace {

/// Nothing reaches the decoder until all parameter sets have been seen and then a key frame comes.
bool passes_gate(StreamContext& context, const HevcAuInfo& info, bool is_key_frame)
{
    const std::lock_guard lock(context.gate_mutex);
    context.seen_vps = context.seen_vps || info.has_vps;
    context.seen_sps = context.seen_sps || info.has_sps;
    context.seen_pps = context.seen_pps || info.has_pps;
    if (context.gate_state == kWaitingForParameterSets && context.seen_vps && context.seen_sps && context.seen_pps)
        context.gate_state = kWaitingForKeyFrame;
    if (context.gate_state == kWaitingForKeyFrame && is_key_frame) context.gate_state = kPassing;
    return context.gate_state == kPassing;
}

/// A buffer with a copy of the unit; null when there is no memory for it.
BufferPtr make_buffer(const unsigned char* data, unsigned long size, long pts)
{
    BufferPtr buffer(gst_buffer_new_allocate(nullptr, size, nullptr));
    if (!buffer) return nullptr;
    {
        const MappedBuffer map(buffer.get(), GST_MAP_WRITE);
        if (!map) return nullptr;
        std::memcpy(map.data(), data, size);
    }
    const GstClockTime time = pts < 0 ? GST_CLOCK_TIME_NONE : static_cast<GstClockTime>(pts);
    GST_BUFFER_PTS(buffer.get()) = time;
    GST_BUFFER_DTS(buffer.get()) = time;
    GST_BUFFER_DURATION(buffer.get()) = GST_CLOCK_TIME_NONE;
    return buffer;
}

/// May block while the source has all it can hold; the lock keeps other pushers in line behind.
int push(StreamContext& context, const unsigned char* data, unsigned long size, long pts)
{
    const std::lock_guard lock(context.push_mutex);
    const ElementPtr appsrc = appsrc_of(context);
    if (!appsrc) return kSpliceNotRunning;
    BufferPtr buffer = make_buffer(data, size, pts);
    if (!buffer) return kSpliceInternal;
    if (gst_app_src_push_buffer(GST_APP_SRC(appsrc.get()), buffer.release()) != GST_FLOW_OK) return kSpliceRefused;
    context.last_pts = pts;
    return kSpliceOk;
}

} // namespace

int decode_put_frame_splice(const unsigned char* data, unsigned long size, const std::string& stream_id, long pts,
                            bool is_key_frame)
{
    if (!data || size == 0 || stream_id.empty()) return kSpliceBadArgument;
    const std::shared_ptr<StreamContext> context = find_splice_stream(stream_id);
    if (!context) return kSpliceUnknownStream;
    if (!context->running.load(std::memory_order_acquire) || context->stopping.load(std::memory_order_acquire))
        return kSpliceNotRunning;
    const HevcAuInfo info = parse_hevc_au_info_splice(data, size);
    if (!passes_gate(*context, info, is_key_frame || info.is_irap)) return kSpliceGated;
    return push(*context, data, size, pts);
}

} // namespace Quorvis::VelStream

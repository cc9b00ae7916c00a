#include "StreamInput.h"

#include "ElementTools.h"
#include "Log.h"
#include "StreamCommon.h"

namespace Quorvis::VelStream {

namespace {

/// The first data of a track that nothing is linked to: the demuxer ends the stream for it unless video came before.
GstPadProbeReturn on_ignored_data(GstPad* pad, GstPadProbeInfo*, gpointer queue)
{
    const PadPtr sink(gst_element_get_static_pad(GST_ELEMENT(queue), "sink"));
    const ElementPtr demux(gst_pad_get_parent_element(pad));
    if (!gst_pad_is_linked(sink.get()))
        tell_unplayable(demux.get(), "The server sends sound before any video, or no video at all.");
    return GST_PAD_PROBE_REMOVE;
}

} // namespace

GstElement* StreamInputRtmp::build()
{
    ElementPtr bin(gst_bin_new(bin_name_.c_str())); // floating on purpose
    const ElementPtr source = make_located("rtmpsrc", nullptr, input_addr_);
    const ElementPtr demux = make_element("flvdemux");
    const ElementPtr queue = make_element("queue");
    const std::string codec = get_decode_type(stream_id_);
    const ElementPtr parser = make_parser(codec);
    const ElementPtr decoder = make_decoder(platform_row(kDecoders), codec);
    if (!bin || !source || !demux || !queue || !parser || !decoder) {
        VEL_LOG_ERROR("Not all elements could be created.\n");
        return nullptr;
    }
    add_all(bin.get(), {source.get(), demux.get(), queue.get(), parser.get(), decoder.get()});
    if (!link_steps({{source.get(), demux.get(), "Failed to link rtmpsrc and flvdemux. Exiting.\n"}})) return nullptr;
    g_signal_connect_data(demux.get(), "pad-added", G_CALLBACK(cb_flvdemux_pad_added), queue.get(), nullptr,
                          GConnectFlags{});
    if (!link_steps({{queue.get(), parser.get(), "Failed to link queue and h26xparse. Exiting.\n"},
                     {parser.get(), decoder.get(), "Failed to link h26xparse and qtivdec. Exiting.\n"}}))
        return nullptr;
    createSrcPad(bin.get(), decoder.get());
    return bin.release();
}

void cb_flvdemux_pad_added(GstElement* demux, GstPad* pad, GstElement* queue)
{
    const PadPtr sink(gst_element_get_static_pad(queue, "sink"));
    if (gst_pad_is_linked(sink.get())) return;
    if (!carries_h264_or_h265(pad)) {
        VEL_LOG_INFO("Pad added, but type is not video/x-h264 or video/x-h265, skipping.\n");
        gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, on_ignored_data, gst_object_ref(queue), gst_object_unref);
        return;
    }
    if (GST_PAD_LINK_FAILED(gst_pad_link(pad, sink.get()))) {
        VEL_LOG_ERROR("Failed to link new pad (video) to queue. Exiting.\n");
        tell_unplayable(demux, "The server's video is of another codec than the entry's \"decodeType\".");
        return;
    }
    VEL_LOG_INFO("Successfully linked new pad (video) to queue.\n");
}

} // namespace Quorvis::VelStream

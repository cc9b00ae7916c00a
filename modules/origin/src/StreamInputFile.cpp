#include "StreamInput.h"

#include "ElementTools.h"
#include "Log.h"
#include "Mp4Boxes.h"
#include "StreamCommon.h"

namespace Quorvis::VelStream {

namespace {

ElementPtr make_logged_parser(const std::string& codec)
{
    // Kept: the text says h264 for H.265 too.
    if (codec == "H265")
        VEL_LOG_INFO("Input rtsp is h264. Including h265parse.");
    else
        VEL_LOG_INFO("Input rtsp is h264. Including h264parse.");
    return make_parser(codec);
}

void on_no_more_pads(GstElement* demux, GstElement* queue)
{
    const PadPtr sink(gst_element_get_static_pad(queue, "sink"));
    if (gst_pad_is_linked(sink.get())) return;
    if (has_source_pad(demux, carries_h264_or_h265))
        tell_unplayable(demux, "The file's video is of another codec than the entry's \"decodeType\".");
    else
        tell_unplayable(demux, "The file has no H.264 or H.265 video.");
}

/// A file that is cut short plays what is there and ends as a whole one does, or has no index and says only that. Looks
/// once, before the demuxer's first read.
GstPadProbeReturn on_first_read(GstPad* sink, GstPadProbeInfo*, gpointer path)
{
    const ElementPtr demux(gst_pad_get_parent_element(sink));
    const auto missing = static_cast<unsigned long long>(missing_mp4_bytes(static_cast<const char*>(path)));
    if (!demux || missing == 0) return GST_PAD_PROBE_REMOVE;
    VEL_LOG_WARN("File %s is cut short: %llu bytes are missing at its end.", static_cast<const char*>(path), missing);
    GST_ELEMENT_WARNING(demux.get(), RESOURCE, READ,
                        ("The file is cut short: %llu bytes are missing at its end.", missing), (nullptr));
    return GST_PAD_PROBE_REMOVE;
}

void watch_first_read(GstElement* demux, const std::string& path)
{
    const PadPtr sink(gst_element_get_static_pad(demux, "sink"));
    if (!sink) return; // another element goes by the demuxer's name
    gst_pad_add_probe(sink.get(), GST_PAD_PROBE_TYPE_PULL, on_first_read, g_strdup(path.c_str()), g_free);
}

} // namespace

GstElement* StreamInputFile::build()
{
    ElementPtr bin(gst_bin_new(bin_name_.c_str())); // floating on purpose
    const ElementPtr source = make_located("filesrc", "queue_input_src", input_addr_);
    const ElementPtr demux = make_element("qtdemux");
    const ElementPtr queue = make_element("queue");
    const std::string codec = get_decode_type(stream_id_);
    const ElementPtr parser = make_logged_parser(codec);
    const ElementPtr decoder = make_decoder(platform_row(kDecoders), codec);
    if (!bin || !source || !demux || !queue || !parser || !decoder) {
        VEL_LOG_ERROR("Not all elements could be created.");
        return nullptr;
    }
    add_all(bin.get(), {source.get(), demux.get(), queue.get(), parser.get(), decoder.get()});
    if (!link_steps({{source.get(), demux.get(), "Failed to link filesrc and qtdemux. Exiting."},
                     {queue.get(), parser.get(), "Failed to link queue and h26xparse. Exiting."},
                     {parser.get(), decoder.get(), "Failed to link h26xparse and videoconvert. Exiting."}}))
        return nullptr;
    g_signal_connect_data(demux.get(), "pad-added", G_CALLBACK(cb_qtdemux_pad_added), queue.get(), nullptr,
                          GConnectFlags{});
    g_signal_connect_data(demux.get(), "no-more-pads", G_CALLBACK(on_no_more_pads), queue.get(), nullptr,
                          GConnectFlags{});
    watch_first_read(demux.get(), input_addr_);
    createSrcPad(bin.get(), decoder.get());
    return bin.release();
}

void cb_qtdemux_pad_added(GstElement*, GstPad* pad, GstElement* queue)
{
    if (!carries_h264_or_h265(pad)) return;
    const PadPtr sink(gst_element_get_static_pad(queue, "sink"));
    // A second video track is tried too and refused, since the queue is linked by then.
    gst_pad_link(pad, sink.get());
}

} // namespace Quorvis::VelStream

#include "StreamInput.h"

#include "ElementTools.h"
#include "Log.h"
#include "StreamBuild.h"
#include "StreamCommon.h"

#include <exception>

namespace Quorvis::VelStream {

namespace {

// Values of rtspsrc's "protocols".
constexpr int kProtocolUdp = 1;
constexpr int kProtocolTcp = 4;

struct RtpElements {
    ElementPtr depay;
    ElementPtr parser;
};

RtpElements make_rtp_elements(const std::string& codec)
{
    if (codec == "H265") {
        VEL_LOG_INFO("Input rtsp is h265. Including rtph265depay and h265parse.");
        return {make_element("rtph265depay"), make_element("h265parse")};
    }
    VEL_LOG_INFO("Input rtsp is h264. Including rtph264depay and h264parse.");
    return {make_element("rtph264depay"), make_element("h264parse")};
}

void configure_source(GstElement* source)
{
    if (platform() == "ub2404") {
        set_property(source, "latency", 200); // ms
        set_property(source, "protocols", kProtocolTcp);
        return;
    }
    set_property(source, "latency", 1000); // ms
    set_property(source, "drop-on-latency", true);
    set_property(source, "protocols", kProtocolUdp);
    set_property(source, "do-rtsp-keep-alive", true);
    set_property(source, "udp-reconnect", true);
    set_property(source, "udp-buffer-size", 2097152); // bytes
    set_property(source, "timeout", 30000000);        // us
}

void check_decode_type(const char* encoding)
{
    try {
        if (get_decode_type(noted_stream_id()) != encoding)
            VEL_LOG_ERROR("Incoming data decode type: %s, doesn't match defined type, Update decode type in file "
                          "velstream-gst.conf accordingly please.",
                          encoding);
    } catch (const std::exception& error) {
        // The file may be in the middle of an edit; the stream goes on.
        VEL_LOG_ERROR("Decode type cannot be checked, the configuration file is not readable: %s", error.what());
    }
}

void announce_media(const std::string& media, const GstStructure* structure)
{
    if (media == "video") {
        VEL_LOG_INFO("This is a video stream.");
        const char* encoding = gst_structure_get_string(structure, "encoding-name");
        check_decode_type(encoding ? encoding : "");
    } else if (media == "audio") {
        VEL_LOG_INFO("This is an audio stream.");
    } else {
        VEL_LOG_ERROR("Unknown media type: %s", media.c_str());
    }
}

void link_video(GstElement* source, GstPad* pad, GstElement* depay)
{
    VEL_LOG_INFO("Linking application/x-rtp and media type is video.");
    const PadPtr sink(gst_element_get_static_pad(depay, "sink"));
    if (gst_pad_is_linked(sink.get())) {
        VEL_LOG_INFO("We are already linked. Ignoring.\n");
        return;
    }
    const GstPadLinkReturn result = gst_pad_link(pad, sink.get());
    if (GST_PAD_LINK_FAILED(result)) {
        VEL_LOG_ERROR("Failed to link pads: %s.", gst_pad_link_get_name(result));
        tell_unplayable(source, "The camera's video is of another codec than the entry's \"decodeType\".");
        return;
    }
    VEL_LOG_INFO("Pad linked successfully.\n");
}

bool carries_video(GstPad* pad)
{
    const CapsPtr caps = structured_caps(pad);
    if (!caps) return false;
    return g_strcmp0(gst_structure_get_string(gst_caps_get_structure(caps.get(), 0), "media"), "video") == 0;
}

void on_no_more_pads(GstElement* source, gpointer)
{
    if (!has_source_pad(source, carries_video)) tell_unplayable(source, "The camera sends no video.");
}

} // namespace

GstElement* StreamInputRtsp::build()
{
    ElementPtr bin(gst_bin_new(bin_name_.c_str())); // floating on purpose
    const ElementPtr source = make_located("rtspsrc", "queue_input_src", input_addr_);
    const std::string codec = get_decode_type(stream_id_);
    const auto [depay, parser] = make_rtp_elements(codec);
    const ElementPtr decoder = make_decoder(platform_row(kRtspDecoders), codec);
    if (!bin || !source || !depay || !parser || !decoder) {
        VEL_LOG_ERROR("Not all elements could be created.");
        return nullptr;
    }
    configure_source(source.get());
    add_all(bin.get(), {source.get(), depay.get(), parser.get(), decoder.get()});
    add_buffer_probe(depay.get(), "src", pad_probe_cb, nullptr);
    if (!link_steps({{depay.get(), parser.get(), "Failed to link rtph26xdepay and qtdemux. Exiting."},
                     {parser.get(), decoder.get(), "Failed to link h26xparse and videoconvert. Exiting.\n"}}))
        return nullptr;
    g_signal_connect_data(source.get(), "pad-added", G_CALLBACK(cb_rtspsrc_pad_added), depay.get(), nullptr,
                          GConnectFlags{});
    g_signal_connect_data(source.get(), "no-more-pads", G_CALLBACK(on_no_more_pads), nullptr, nullptr, GConnectFlags{});
    createSrcPad(bin.get(), decoder.get());
    return bin.release();
}

void cb_rtspsrc_pad_added(GstElement* src, GstPad* pad, GstElement* depay)
{
    // Kept: the text names another element.
    VEL_LOG_INFO("cb_uridecodebin_pad_added called.");
    const TextPtr pad_name(gst_pad_get_name(pad));
    VEL_LOG_INFO("rtsp padname: %s", pad_name.get());

    const CapsPtr caps = structured_caps(pad);
    if (!caps) {
        VEL_LOG_ERROR("Failed to get pad caps. Exiting callback.\n");
        return;
    }
    const TextPtr caps_text(gst_caps_to_string(caps.get()));
    VEL_LOG_INFO("Caps information: %s", caps_text.get());

    const GstStructure* structure = gst_caps_get_structure(caps.get(), 0);
    const char* media = gst_structure_get_string(structure, "media");
    if (!media) {
        VEL_LOG_ERROR("Media type not found in caps.\n");
        return;
    }
    VEL_LOG_INFO("Media type: %s", media);
    announce_media(media, structure);

    const char* name = gst_structure_get_name(structure);
    VEL_LOG_INFO("rtsp Structure name: %s\n", name);
    const bool is_rtp = g_str_has_prefix(name, "application/x-rtp") || g_str_has_prefix(name, "application/x-rdt");
    if (g_str_equal(media, "video") && is_rtp)
        link_video(src, pad, depay);
    else
        VEL_LOG_INFO("This stream is not video.");
}

GstPadProbeReturn pad_probe_cb(GstPad*, GstPadProbeInfo*, void*)
{
    return GST_PAD_PROBE_OK;
}

} // namespace Quorvis::VelStream

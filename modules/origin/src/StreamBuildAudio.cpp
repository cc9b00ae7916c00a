#include "StreamBuildAudio.h"

#include "BuilderList.h"
#include "ElementTools.h"
#include "Log.h"
#include "RtspPush.h"
#include "StreamBuild.h"
#include "StreamBuildMessages.h"
#include "StreamBuildRegistry.h"
#include "StreamBuildScope.h"
#include "StreamBuildTap.h"
#include "StreamCommon.h"

#include <utility>
#include <vector>

namespace Quorvis::VelStream {

namespace {

constexpr int kProtocolUdp = 1; // of rtspsrc's "protocols"
constexpr const char* kH264Caps = "video/x-h264,stream-format=byte-stream,alignment=au";
constexpr const char* kH265Caps = "video/x-h265,stream-format=byte-stream,alignment=au";

// The relay knows no row of its own for "ub2404".
constexpr DecoderRow kRelayDecoders[] = {
    {"8550", "qtic2vdec", "qtic2vdec", {0, 0}, false, "Platform is 8550, will use qtic2vdec plugin."},
    {"6490", "qtivdec", "qtivdec", {0, 0}, false, "Platform is 6490, will use qtivdec plugin."},
    {"v4l2",
     "v4l2h264dec",
     "v4l2h265dec",
     {5, 5},
     true,
     "Platform is 6490 Qualcomm Linux, will use v4l2h264dec plugin."},
    {"", "qtivdec", "qtivdec", {0, 0}, false, "Platform is default setting(not 6490/8550), will use qtivdec plugin."},
};

bool is_qualcomm_linux()
{
    return platform() == "v4l2";
}

/// The pad's caps, null while it has none, and their first structure.
struct PadCaps {
    explicit PadCaps(GstPad* pad) : caps(gst_pad_get_current_caps(pad))
    {
        if (caps && gst_caps_get_size(caps.get()) > 0) structure = gst_caps_get_structure(caps.get(), 0);
    }
    const char* name() const { return structure ? gst_structure_get_name(structure) : "none"; }

    CapsPtr caps;
    const GstStructure* structure = nullptr;
};

PadPtr sink_pad_of(GstElement* pipeline, const char* element_name)
{
    const ElementPtr element(gst_bin_get_by_name(GST_BIN(pipeline), element_name));
    return PadPtr(element ? gst_element_get_static_pad(element.get(), "sink") : nullptr);
}

/// What linking one track of a file says.
struct TrackTexts {
    const char* linked_before;
    const char* linked;
    const char* failed;
};

void link_track(GstPad* pad, GstElement* pipeline, const char* queue, const TrackTexts& texts)
{
    const PadPtr sink = sink_pad_of(pipeline, queue);
    if (sink && gst_pad_is_linked(sink.get()))
        VEL_LOG_INFO("%s", texts.linked_before);
    else if (!sink || GST_PAD_LINK_FAILED(gst_pad_link(pad, sink.get())))
        VEL_LOG_ERROR("%s", texts.failed);
    else
        VEL_LOG_INFO("%s", texts.linked);
}

/// Gives whole RTP packets: the payloader behind it would keep back what does not fill one at the stream's end.
ElementPtr make_muxer()
{
    constexpr int kPacketsInRtp = 7;
    ElementPtr muxer = make_element("mpegtsmux");
    set_property(muxer.get(), "alignment", kPacketsInRtp);
    return muxer;
}

struct ChainStep {
    std::vector<GstElement*> chain;
    const char* failure; ///< Logged when one of its links fails.
};

/// Links one chain after the other up to the first failure. @return 0, or -1.
int link_chains(const std::vector<ChainStep>& steps)
{
    for (const ChainStep& step : steps) {
        for (std::size_t i = 1; i < step.chain.size(); ++i) {
            if (link_chain({step.chain[i - 1], step.chain[i]})) continue;
            VEL_LOG_ERROR("%s", step.failure);
            return -1;
        }
    }
    return 0;
}

void watch_relay(RunScope& scope)
{
    constexpr auto kTypes = GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR);
    const MessagePtr message = scope.wait_for_message(kTypes);
    if (!message) return; // another thread has stopped the pipeline
    if (GST_MESSAGE_TYPE(message.get()) == GST_MESSAGE_EOS) {
        VEL_LOG_INFO("End-Of-Stream reached.");
    } else {
        const ErrorReport report(message.get());
        VEL_LOG_ERROR("Error received from element %s: %s\n", source_name(message.get()), report.text());
        VEL_LOG_ERROR("Debugging information: %s\n", report.debug());
    }
    scope.run().note_end();
}

} // namespace

StreamBuildAudio::StreamBuildAudio(std::string stream_id)
{
    set_stream_id(stream_id);
    get_configuration_properties(stream_id, property_);
    input_addr_ = property_.inputAddr;
    file_source_name_ = "velstream_input_file_" + stream_id;
}

StreamBuildAudio::~StreamBuildAudio()
{
    release_pipeline(&data_); // when steps were called without a launch
}

int StreamBuildAudio::launch_stream(std::function<int8_t(const Image&)>& callback)
{
    if (init() == -1) return -1;
    data_.callback = callback;
    const int result = run_stream();
    made_ = {};
    data_.callback = nullptr;
    return result;
}

int StreamBuildAudio::run_stream()
{
    register_pipeline(stream_id_, data_.pipeline);
    RunScope scope(&data_);
    if (build_steps() == -1) return -1;
    add_buffer_probe(made_.rgb_filter.get(), "src", audio_on_buffer_received, this);
    if (scope.play()) watch_relay(scope);
    return 0;
}

int StreamBuildAudio::build_steps()
{
    if (init_input() == -1 || init_middle() == -1 || init_output() == -1) return -1;
    return init_audio() == -1 ? -1 : set_pipeline();
}

int StreamBuildAudio::init_input()
{
    if (property_.inputType == "rtsp") return init_rtsp_intput();
    if (property_.inputType == "file") return init_file_intput();
    VEL_LOG_ERROR("Un-supported input type.");
    return -1;
}

int StreamBuildAudio::init_middle()
{
    return is_qualcomm_linux() ? init_middle_6490_ql() : init_rtsp_middle();
}

int StreamBuildAudio::init_output()
{
    if (property_.outputType != "rtsp") {
        VEL_LOG_ERROR("Un-supported output type. Please take a try to disable audio parameter.");
        return -1;
    }
    return is_qualcomm_linux() ? init_rtsp_output_6490_ql() : init_rtsp_output();
}

int StreamBuildAudio::init()
{
    VEL_LOG_INFO("Init pipeline.");
    gst_init(nullptr, nullptr);
    pipeline_name_ = property_.streamsId;
    data_.pipeline = gst_pipeline_new(pipeline_name_.c_str());
    std::function<int8_t(const Image&)> none_yet;
    return pipeline_data_init(&data_, pipeline_name_, none_yet);
}

ElementPtr StreamBuildAudio::make_relay_decoder(bool discards_corrupted_frames)
{
    DecoderRow row = platform_row(kRelayDecoders);
    row.discards_corrupted_frames = row.discards_corrupted_frames && discards_corrupted_frames;
    return make_decoder(row, property_.decodeType);
}

int StreamBuildAudio::init_rtsp_intput()
{
    VEL_LOG_INFO("Init rtsp input.");
    stream_type_ = kRtspInput;
    made_.source = make_located("rtspsrc", nullptr, input_addr_);
    set_property(made_.source.get(), "latency", 0); // ms
    set_property(made_.source.get(), "drop-on-latency", true);
    set_property(made_.source.get(), "protocols", kProtocolUdp);
    if (property_.decodeType == "H265") {
        VEL_LOG_INFO("Input rtsp is h265. Including rtph265depay and h265parse.");
        made_.depay = make_element("rtph265depay", "rtph265depay_rtsp_input");
        made_.input_parser = make_element("h265parse", "h265parse_rtsp_input");
    } else if (property_.decodeType == "H264") { // another codec has no elements
        VEL_LOG_INFO("Input rtsp is h264. Including rtph264depay and h264parse.");
        made_.depay = make_element("rtph264depay", "rtph264depay_rtsp_input");
        made_.input_parser = make_element("h264parse", "h264parse_rtsp_input");
    }
    made_.decoder = make_relay_decoder(true);
    if (made_.source && made_.depay && made_.input_parser && made_.decoder) return 0;
    VEL_LOG_ERROR("init_rtsp_intput - Not all elements could be created.\n");
    return -1;
}

int StreamBuildAudio::init_file_intput()
{
    VEL_LOG_INFO("Init file input.");
    stream_type_ = kFileInput;
    made_.source = make_located("filesrc", file_source_name_.c_str(), input_addr_);
    made_.demux = make_element("qtdemux");
    made_.input_queue = make_element("queue", "file_input_queue");
    made_.input_parser = make_element("h264parse");
    made_.decoder = make_relay_decoder(false);
    if (made_.source && made_.demux && made_.input_queue && made_.input_parser && made_.decoder) return 0;
    VEL_LOG_ERROR("init_file_intput - Not all elements could be created.\n");
    return -1;
}

int StreamBuildAudio::init_rtsp_middle()
{
    VEL_LOG_INFO("Init rtsp middle.");
    made_.to_rgb = make_element("qtivtransform", "qtivtransformInput");
    made_.rgb_filter = make_capsfilter("qtivtransformInputCap", "video/x-raw,format=RGB");
    made_.from_rgb = make_element("qtivtransform", "qtivtransformOutput");
    if (platform() == "8550") {
        VEL_LOG_INFO("Platform is 8550, will skip opengl handling.");
        set_property(made_.to_rgb.get(), "engine", 2);
        set_property(made_.from_rgb.get(), "engine", 2);
    }
    if (made_.to_rgb && made_.rgb_filter && made_.from_rgb) return 0;
    VEL_LOG_ERROR("init_middle - Not all elements could be created.\n");
    return -1;
}

int StreamBuildAudio::init_middle_6490_ql()
{
    VEL_LOG_INFO("Init rtsp middle based on 6490_ql.");
    made_.to_rgb = make_element("qtivtransform", "qtivtransformInput");
    made_.rgb_filter = make_capsfilter("capsfilter1", "video/x-raw(memory:GBM),format=RGB");
    made_.from_rgb = make_element("qtivtransform", "qtivtransformOutput");
    made_.nv12_filter = make_capsfilter("capsfilter2", "video/x-raw(memory:GBM),format=NV12,colorimetry=bt601");
    set_property(made_.to_rgb.get(), "engine", 2);
    set_property(made_.from_rgb.get(), "engine", 2);
    if (made_.to_rgb && made_.rgb_filter && made_.from_rgb && made_.nv12_filter) return 0;
    VEL_LOG_ERROR("init_middle - Not all elements could be created.\n");
    return -1;
}

/// The picture keeps its codec.
void StreamBuildAudio::make_output_parser()
{
    if (property_.decodeType == "H265") {
        made_.output_parser = make_element("h265parse", "h265_rtsp_output");
        made_.output_filter = make_capsfilter("capsfilter_output", kH265Caps);
    } else {
        made_.output_parser = make_element("h264parse", "h264_rtsp_output");
        made_.output_filter = make_capsfilter("capsfilter_output", kH264Caps);
    }
}

int StreamBuildAudio::init_rtsp_output()
{
    VEL_LOG_INFO("Init rtsp output.");
    made_.sink = make_rtsp_push(nullptr, property_.outputAddr);
    made_.encoder = make_element("qtic2venc");
    make_output_parser();
    made_.muxer = make_muxer();
    if (made_.sink && made_.encoder && made_.output_parser && made_.output_filter && made_.muxer) return 0;
    VEL_LOG_ERROR("init_rtsp_output - Not all elements could be created.\n");
    return -1;
}

int StreamBuildAudio::init_rtsp_output_6490_ql()
{
    VEL_LOG_INFO("Init rtsp output based on 6490_ql.");
    VEL_LOG_INFO("Target address: %s", property_.outputAddr.c_str());
    made_.sink = make_rtsp_push(nullptr, property_.outputAddr);
    made_.encoder = make_element("v4l2h264enc");
    set_io_modes(made_.encoder.get(), {5, 5});
    make_output_parser();
    made_.muxer = make_muxer();
    if (made_.sink && made_.encoder && made_.output_parser && made_.muxer) return 0;
    VEL_LOG_ERROR("init_rtsp_output_6490_ql - Not all elements could be created.\n");
    return -1;
}

int StreamBuildAudio::init_audio()
{
    VEL_LOG_INFO("Init audio.");
    // The handlers of new pads look these up by their names.
    made_.audio_head = stream_type_ == kFileInput ? make_element("queue", "audio_queue")
                                                  : make_element("rtpmp4gdepay", "rtpmp4gdepay");
    made_.audio_parser = make_element("aacparse");
    if (made_.audio_head && made_.audio_parser) return 0;
    VEL_LOG_ERROR("init_audio - Not all elements could be created.\n");
    return -1;
}

int StreamBuildAudio::set_pipeline()
{
    VEL_LOG_INFO("Set pipeline.");
    switch (stream_type_) {
    case kRtspInput:
        if (set_pipeline_rtsp_rtsp() == -1) return -1;
        g_signal_connect(made_.source.get(), "pad-added", G_CALLBACK(audio_cb_rtspsrc_pad_added), data_.pipeline);
        break;
    case kFileInput:
        if (set_pipeline_file_rtsp() == -1) return -1;
        g_signal_connect(made_.demux.get(), "pad-added", G_CALLBACK(audio_cb_filesrc_pad_added), data_.pipeline);
        g_signal_connect(made_.demux.get(), "no-more-pads", G_CALLBACK(audio_cb_filesrc_no_more_pads), data_.pipeline);
        break;
    default:
        VEL_LOG_ERROR("Un-supported stream type: %d", stream_type_);
        return -1;
    }
    VEL_LOG_INFO("Link connection completed.");
    return 0;
}

void StreamBuildAudio::add_elements()
{
    add_all(data_.pipeline, {made_.source.get(), made_.depay.get(), made_.demux.get(), made_.input_queue.get(),
                             made_.input_parser.get(), made_.decoder.get(), made_.to_rgb.get(), made_.rgb_filter.get(),
                             made_.from_rgb.get(), made_.encoder.get(), made_.muxer.get(), made_.sink.get(),
                             made_.audio_head.get(), made_.audio_parser.get()});
}

int StreamBuildAudio::set_pipeline_rtsp_rtsp()
{
    VEL_LOG_INFO("Set rtsp-rtsp pipeline.");
    add_elements();
    add_all(data_.pipeline, {made_.output_parser.get(), made_.nv12_filter.get()});
    return is_qualcomm_linux() ? link_camera_6490_ql() : link_camera();
}

int StreamBuildAudio::link_camera()
{
    const Elements& e = made_;
    if (link_chain({e.depay.get(), e.input_parser.get(), e.decoder.get(), e.to_rgb.get(), e.rgb_filter.get()}) &&
        link_chain({e.rgb_filter.get(), e.from_rgb.get(), e.encoder.get(), e.output_parser.get(), e.muxer.get()}) &&
        link_chain({e.audio_head.get(), e.audio_parser.get(), e.muxer.get()}) &&
        link_chain({e.muxer.get(), e.sink.get()}))
        return 0;
    VEL_LOG_ERROR("Failed to link elements in audio stream.");
    return -1;
}

int StreamBuildAudio::link_camera_6490_ql()
{
    const Elements& e = made_;
    return link_chains({
        {{e.depay.get(), e.input_parser.get(), e.decoder.get(), e.to_rgb.get(), e.rgb_filter.get()},
         "Failed to link elements rtph264depay - h264parse - v4l2h264dec - qtivtransformInput - capsfilter1 in audio "
         "stream based on 6490_ql."},
        {{e.rgb_filter.get(), e.from_rgb.get(), e.nv12_filter.get()},
         "Failed to link elements capsfilter1 - qtivtransformOutput - capsfilter2 in audio stream based on 6490_ql."},
        {{e.nv12_filter.get(), e.encoder.get(), e.output_parser.get(), e.muxer.get()},
         "Failed to link elements capsfilter2 - v4l2h264enc - h264parse2 - mpegtsmux in audio stream based on "
         "6490_ql."},
        {{e.audio_head.get(), e.audio_parser.get(), e.muxer.get()},
         "Failed to link elements rtpmp4gdepay - aacparse - mpegtsmux in audio stream based on 6490_ql."},
        {{e.muxer.get(), e.sink.get()},
         "Failed to link elements mpegtsmux - rtspclientsink in audio stream based on 6490_ql."},
    });
}

int StreamBuildAudio::set_pipeline_file_rtsp()
{
    VEL_LOG_INFO("Set file-rtsp pipeline.");
    add_elements();
    if (!is_qualcomm_linux()) add_all(data_.pipeline, {made_.output_filter.get()});
    const Elements& e = made_;
    const ChainStep picture =
        is_qualcomm_linux()
            ? ChainStep{{e.rgb_filter.get(), e.from_rgb.get(), e.encoder.get(), e.muxer.get()},
                        "Failed to link capsfilter - qtivtransformOutput - qtic2venc - mpegtsmux elements."}
            : ChainStep{{e.rgb_filter.get(), e.from_rgb.get(), e.encoder.get(), e.output_filter.get(), e.muxer.get()},
                        "Failed to link capsfilter - qtivtransformOutput - qtic2venc - capsfilter_output - mpegtsmux "
                        "elements."};
    return link_chains({
        {{e.source.get(), e.demux.get()}, "Failed to link filesrc and qtdemux. Exiting."},
        {{e.input_queue.get(), e.input_parser.get(), e.decoder.get(), e.to_rgb.get(), e.rgb_filter.get()},
         "Failed to link queue_file_in - h264parse - qtivdec - qtivtransformInput - capsfilter elements."},
        picture,
        {{e.audio_head.get(), e.audio_parser.get(), e.muxer.get()},
         "Failed to link queue_audio - aacparse - mpegtsmux elements."},
        {{e.muxer.get(), e.sink.get()}, "Failed to link mpegtsmux - rtspclientsink elements."},
    });
}

void audio_cb_rtspsrc_pad_added(GstElement*, GstPad* pad, GstElement* pipeline)
{
    const PadCaps caps(pad);
    const char* media = caps.structure ? gst_structure_get_string(caps.structure, "media") : nullptr;
    VEL_LOG_INFO("new_pad_type value: %s, media type: %s", caps.name(), media ? media : "none");
    if (g_strcmp0(caps.name(), "application/x-rtp") != 0) return;
    // The input's depayloader has another name, so a camera's picture stays unlinked: its sound alone is relayed.
    const char* depay = g_strcmp0(media, "video") == 0   ? "rtph264depay"
                        : g_strcmp0(media, "audio") == 0 ? "rtpmp4gdepay"
                                                         : nullptr;
    const PadPtr sink = depay ? sink_pad_of(pipeline, depay) : nullptr;
    if (sink && !gst_pad_is_linked(sink.get())) gst_pad_link(pad, sink.get());
}

void audio_cb_filesrc_pad_added(GstElement*, GstPad* pad, GstElement* pipeline)
{
    const PadCaps caps(pad);
    const TextPtr text(caps.caps ? gst_caps_to_string(caps.caps.get()) : nullptr);
    VEL_LOG_INFO("New pad added: %s, _caps_str : %s", GST_PAD_NAME(pad), text ? text.get() : "none");
    if (g_strcmp0(caps.name(), "video/x-h264") == 0) {
        VEL_LOG_INFO("Start to link video/x-h264.");
        link_track(pad, pipeline, "file_input_queue",
                   {"Video is already linked.", "Linked video pad to queue.", "Failed to link video pad to queue."});
    } else if (g_strcmp0(caps.name(), "audio/mpeg") == 0) {
        link_track(
            pad, pipeline, "audio_queue",
            {"Audio is already linked.", "Linked audio pad to aacparse.", "Failed to link audio pad to aacparse."});
    } else {
        VEL_LOG_WARN("Unhandled pad type: %s", caps.name());
    }
}

void audio_cb_filesrc_no_more_pads(GstElement* demux, GstElement* pipeline)
{
    for (const auto& [queue, track] : {std::pair{"file_input_queue", "H.264 video"}, {"audio_queue", "AAC audio"}}) {
        const PadPtr sink = sink_pad_of(pipeline, queue);
        if (sink && gst_pad_is_linked(sink.get())) continue;
        GST_ELEMENT_ERROR(demux, STREAM, WRONG_TYPE, ("The file has no %s track to relay.", track), (nullptr));
        return;
    }
}

GstPadProbeReturn audio_on_buffer_received(GstPad* pad, GstPadProbeInfo* info, void* builder)
{
    return tap_frame<TapKind::Plain>(pad, info, &static_cast<StreamBuildAudio*>(builder)->data_);
}

int start_audio_stream(std::string stream_id, std::function<int8_t(const Image&)>& callback)
{
    VEL_LOG_INFO("start_audio_stream - stream_id: %s", stream_id.c_str());
    auto relay = std::make_unique<StreamBuildAudio>(stream_id);
    StreamBuildAudio* started = relay.get();
    BuilderList<StreamBuildAudio>::keep(relay.release()); // as long as the process, as every builder
    return started->launch_stream(callback);
}

} // namespace Quorvis::VelStream

// Relays one stream's sound untouched beside its re-encoded picture, as a transport stream, to an RTSP server.
#pragma once

#include "Handles.h"
#include "StreamBase.h"
#include "StreamRecords.h"

#include <functional>
#include <string>

namespace Quorvis::VelStream {

/// One relay; started once. Each step returns 0, or -1 after a line in the log, in the order of launch_stream().
class StreamBuildAudio : public StreamBase {
public:
    /// Reads the entry of `stream_id`; one that is missing shows as an input type that is not supported.
    explicit StreamBuildAudio(std::string stream_id);
    virtual ~StreamBuildAudio();
    StreamBuildAudio(const StreamBuildAudio&) = delete;
    StreamBuildAudio& operator=(const StreamBuildAudio&) = delete;

    /**
     * Builds the pipeline, runs it and releases it; blocks until it ends or is stopped.
     * @param callback  copied; called with every frame on a streaming thread.
     * @return 0 after a run, an error's included; -1 when a step failed.
     */
    int launch_stream(std::function<int8_t(const Image&)>& callback);

    /// The relay is no element of another pipeline. @return null.
    GstElement* build() override { return nullptr; }

    int init();
    int init_rtsp_intput();
    int init_file_intput();
    int init_rtsp_middle();
    int init_middle_6490_ql();
    int init_rtsp_output();
    int init_rtsp_output_6490_ql();
    int init_audio();
    int set_pipeline();
    int set_pipeline_rtsp_rtsp();
    int set_pipeline_file_rtsp();

    const StreamProperty& property() const { return property_; }
    GstElement* pipeline() const { return data_.pipeline; }

private:
    friend GstPadProbeReturn audio_on_buffer_received(GstPad* pad, GstPadProbeInfo* info, void* builder);

    int run_stream();
    int build_steps();
    int init_input();
    int init_middle();
    int init_output();
    ElementPtr make_relay_decoder(bool discards_corrupted_frames);
    void make_output_parser();
    void add_elements();
    int link_camera();
    int link_camera_6490_ql();

    enum InputCode { kNoInput = 0, kRtspInput = 11, kFileInput = 12 };

    /// What the steps have made; null where the kind of stream has none.
    struct Elements {
        ElementPtr source;
        ElementPtr depay;
        ElementPtr demux;
        ElementPtr input_queue;
        ElementPtr input_parser;
        ElementPtr decoder;
        ElementPtr to_rgb;
        ElementPtr rgb_filter; ///< carries the tap on its "src" pad
        ElementPtr from_rgb;
        ElementPtr nv12_filter;
        ElementPtr encoder;
        ElementPtr output_parser;
        ElementPtr output_filter;
        ElementPtr muxer;
        ElementPtr sink;
        ElementPtr audio_head; ///< depayloader or queue
        ElementPtr audio_parser;
    };

    StreamProperty property_;
    std::string input_addr_;
    std::string file_source_name_;
    std::string pipeline_name_ = "empty";
    int stream_type_ = kNoInput;
    PiplineData data_; ///< the pipeline, its bus, and what the tap needs
    Elements made_;    ///< until the stream has ended: the builder itself stays
};

// "pad-added" handlers; the user data is the pipeline.
void audio_cb_rtspsrc_pad_added(GstElement* source, GstPad* pad, GstElement* pipeline);
void audio_cb_filesrc_pad_added(GstElement* demux, GstPad* pad, GstElement* pipeline);

/// "no-more-pads" handler of a file: one without a picture or without sound ends the stream with an error, since the
/// muxer would wait for it without end.
void audio_cb_filesrc_no_more_pads(GstElement* demux, GstElement* pipeline);

/// Frame tap; the user data is the builder.
GstPadProbeReturn audio_on_buffer_received(GstPad* pad, GstPadProbeInfo* info, void* builder);

} // namespace Quorvis::VelStream

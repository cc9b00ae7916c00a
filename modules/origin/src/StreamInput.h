// The input builders: each makes a bin that ends in the platform's decoder, with decoded video on its ghost "src" pad.
#pragma once

#include "Handles.h"
#include "StreamBase.h"

namespace Quorvis::VelStream {

class StreamInput : public StreamBase {
public:
    /// @param input_addr  URL or file path.
    /// @param stream_id   names the bin and is looked up for the codec; noted in `g_stream_id` as the last one.
    StreamInput(std::string input_addr, std::string stream_id);
    virtual ~StreamInput();
    GstElement* build() override = 0;

protected:
    std::string input_addr_;
    std::string bin_name_; // "velstream_input_file_" + stream id, for every kind of input
};

class StreamInputFile : public StreamInput {
public:
    using StreamInput::StreamInput;
    GstElement* build() override;
};

class StreamInputRtsp : public StreamInput {
public:
    using StreamInput::StreamInput;
    GstElement* build() override;
};

class StreamInputRtmp : public StreamInput {
public:
    using StreamInput::StreamInput;
    GstElement* build() override;
};

// Pad callbacks; they run on a streaming thread. The last argument is the element whose "sink" pad is linked to.
void cb_qtdemux_pad_added(GstElement* demux, GstPad* pad, GstElement* queue);
void cb_flvdemux_pad_added(GstElement* demux, GstPad* pad, GstElement* queue);
void cb_rtspsrc_pad_added(GstElement* src, GstPad* pad, GstElement* depay);

/// A pad's current caps; null when it has none, or none with a structure.
CapsPtr structured_caps(GstPad* pad);

/// True when a demuxer's new pad carries H.264 or H.265.
bool carries_h264_or_h265(GstPad* pad);

/// True when one of an element's source pads is accepted.
bool has_source_pad(GstElement* element, bool (*accepts)(GstPad*));

/// Says why an input has nothing to play, in the log and as a warning of `element` on the bus. What follows there, a
/// data stream error of the element, ends the stream and does not know the cause. Nothing for a null element.
void tell_unplayable(GstElement* element, const char* cause);

/// Hook on the depayloader of an RTSP input; lets every buffer pass.
GstPadProbeReturn pad_probe_cb(GstPad* pad, GstPadProbeInfo* info, void* user_data);

/// Keeps a builder that an entry point or a rebuild made for as long as the process lives.
void keep_builder(StreamInput* builder);

} // namespace Quorvis::VelStream

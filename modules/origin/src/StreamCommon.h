// The configuration file's readers, the free element helpers and the in-place rebuilding of a pipeline.
#pragma once

#include "StreamRecords.h"

namespace Quorvis::VelStream {

// Readers. Nothing is cached: each call opens, parses and searches the file that `stream_conf_file` names, so an edit
// takes effect at the next call. A file that is not JSON, or a value of a wrong type, raises jsoncpp's exception.

/**
 * Reads one stream's entry.
 * @param id    the entry's "streamsId", compared exactly.
 * @param prop  filled in the order of the keys; what was read before a failure stays.
 * @return 0 read; -1 the file cannot be opened, no entry matches, or "inputType" or "inputAddr" is missing.
 */
int get_configuration_properties(std::string id, StreamProperty& prop);

/// The same for the outputs that re-encode frames: size, output file, output address and frame rate.
int get_config_properties_mp4(std::string id, StreamProperty& prop);

// One value each; the default of a fresh record when the entry cannot be read.
std::string get_decode_type(std::string id);
std::string get_encode_type(std::string id);
int get_output_fps(std::string id); ///< Frames a second; 0 when absent.
bool get_manual_rebuild(std::string id);
bool output_mp4(std::string id);       ///< True when the output type is "mp4".
int get_stream_width(std::string id);  ///< Pixels; 0 when absent.
int get_stream_height(std::string id); ///< Pixels; 0 when absent.

// Element helpers of the split stream: each returns a new floating element, or null after a line on standard error.
GstElement* g_setup_source(const char* location);
GstElement* g_setup_depay_i();
GstElement* g_setup_parser_i();
GstElement* g_setup_decoder_i();
GstElement* g_setup_splitter();
GstElement* g_setup_encoder_o(int n);
GstElement* g_setup_parser_o(int n);
GstElement* g_setup_sink(const char* location, int n);

/// The output element of a stream: an RTSP or Wayland bin, else a "fakesink" named "sink". Floating.
GstElement* g_get_stream_output(StreamIns ins);

/// `value` rounded up to a multiple of `alignment`.
int align_up(int value, int alignment);

/**
 * Replaces a stream's pipeline by a fresh one, built from its entry in the configuration file as that reads now.
 * Blocks for a second, less when a stop was asked for. The new pipeline is left in the NULL state.
 * @param data  its pipeline and bus are released in every case; `pipeline` is the new one, or null after a failure.
 * @return 0 rebuilt; -1 no entry, not linked, or a stop was asked for.
 */
int re_create_pipeline(PiplineData* data);

/// Frame tap of a rebuilt pipeline; `data` is the PiplineData. Frames are mapped for reading only.
GstPadProbeReturn on_buffer_received_re(GstPad* pad, GstPadProbeInfo* info, void* data);

} // namespace Quorvis::VelStream

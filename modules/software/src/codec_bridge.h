// The step between a codec and the rest of the pipeline: changes the layout of 4:2:0 planes and the caps feature of
// the memory, never the size or the colours. Not a registered element: it lives only inside the codec bins.
#pragma once

#include "software_handles.h"

namespace velstream::software {

/// What one end of a bridge takes or gives, as the text of a caps.
struct BridgeFormats {
    const char* sink; ///< caps text of the sink side, most wanted first
    const char* src;  ///< caps text of the source side, most wanted first
};

/// From any decoder's planes to NV12, in plain or GBM caps.
inline constexpr BridgeFormats kDecoderBridge = {
    "video/x-raw, format=(string){ I420, NV12, Y42B, Y444, GRAY8, I420_10LE, I422_10LE, Y444_10LE, I420_12LE, "
    "I422_12LE, Y444_12LE }",
    "video/x-raw, format=(string)NV12; video/x-raw(memory:GBM), format=(string)NV12"};

/// To what the H.264 encoder reads.
inline constexpr BridgeFormats kH264EncoderBridge = {
    "video/x-raw, format=(string){ NV12, NV21, I420 }; video/x-raw(memory:GBM), format=(string){ NV12, NV21, I420 }",
    "video/x-raw, format=(string){ NV12, I420 }"};

/// To what the H.265 encoder reads.
inline constexpr BridgeFormats kH265EncoderBridge = {kH264EncoderBridge.sink, "video/x-raw, format=(string)I420"};

/// Makes a bridge between these formats; it passes buffers untouched where both ends have the same format.
ElementPtr make_bridge(const BridgeFormats& formats);

} // namespace velstream::software

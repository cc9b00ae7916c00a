// The records behind the public interface: one stream's full configuration, one running pipeline, the shared frame.
#pragma once

#include "velstream.h"

#include <gst/gst.h>

#include <string>
#include <vector>

namespace Quorvis::VelStream {

/// One sub-stream input of a composed stream.
struct InputStreamProperty {
    std::string inputType;
    std::string inputAddr;
    std::string decodeType = "H264";
    int32_t width = 0;
    int32_t height = 0;
    std::string subStreamId;
    std::string position = "<0, 0>";         ///< Literal text, as the caller gave it.
    std::string dimensions = "<1920, 1080>"; ///< Literal text, as the caller gave it.
    std::string crop;
    std::string flipHorizontal; ///< Key "flip-horizontal".
    std::string flipVertical;   ///< Key "flip-vertical".
};

/// One encoded output of a composed stream.
struct OutputStreamProperty {
    std::string outputType;
    std::string outputAddr;
    std::string encodeType = "H264";
    int32_t width = 0;
    int32_t height = 0;
    int32_t overlaySwitch = 0; ///< Key "overlay_switch".
    std::string subStreamId;
    std::string logoPath; ///< Key "logo_path".
    int32_t logoWidth = 0;
    int32_t logoHeight = 0;
    int32_t logoLocX = 0;
    int32_t logoLocY = 0;
    int32_t logoLocWidth = 0;
    int32_t logoLocHeight = 0;
    std::string textStr; ///< Key "text_str".
    int32_t textLocX = 0;
    int32_t textLocY = 0;
    int32_t textFontSize = 0;
    std::string textColor = "0xFF0000FF"; ///< Key "text_color".
};

/// The full configuration of one stream, which every pipeline builder reads.
struct StreamProperty {
    StreamProperty();
    StreamProperty(const StreamProperty& other);
    StreamProperty(StreamProperty&&) = default;
    StreamProperty& operator=(const StreamProperty&) = default;
    StreamProperty& operator=(StreamProperty&&) = default;
    ~StreamProperty();

    int32_t reserved; ///< Not used.
    std::vector<InputStreamProperty> inputs;
    std::vector<OutputStreamProperty> outputs;
    std::string streamsId;
    std::string pStreamId;
    int32_t width;
    int32_t height;
    std::string inputType;
    std::string inputAddr;
    std::string outputType;
    std::string outputAddr;
    std::string decodeType;
    std::string encodeType;
    std::string model;    ///< Detection model file; task key "Model".
    std::string mlModule; ///< Inference module name; task key "MlModule".
    std::string labels;   ///< Label file or list; task key "Labels".
    bool audio;
    bool saveMp4;
    bool networkPush;
    std::string outputFile;
    int32_t fps;
    bool manualRebuild;
    bool rollingsave;
    int32_t rollingFps; ///< Frame rate of the rolling MP4 segments; key "rollingFps".
};

/// One running pipeline. The element and bus are borrowed: the runner that works on the record releases them.
struct PiplineData {
    GstElement* pipeline = nullptr;
    GstBus* bus = nullptr;
    void* reserved = nullptr;  ///< Not used.
    uint64_t frameCount = 0;   ///< Buffers since the last frame-rate measurement.
    GstClockTime lastTime = 0; ///< System-clock time of the last measurement, ns.
    FrameCallback callback;
    Image image; ///< Re-used for every callback.
    std::string streamId;
};

/// One packed RGB frame between a parent stream's callback and the re-encoding outputs.
struct ShareMem {
    std::vector<uint8_t> data; ///< width x height x 3 bytes.
    int32_t state = -1;        ///< -1 never initialised; 2 initialised.
    int32_t width = 0;
    int32_t height = 0;
    int32_t fps = 0; ///< Set to 25 at initialisation.
    uint64_t reserved[2] = {0, 0};
};

/// Copies what a caller-described stream says into the builders' record; the lists, the model texts, `reserved` and
/// `rollingFps` stay as they are.
void sync_data(StreamIns& ins, StreamProperty& prop);

} // namespace Quorvis::VelStream

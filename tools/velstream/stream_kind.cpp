#include "stream_kind.h"

#include <algorithm>

namespace velstream::tool {

namespace {

using Names = std::vector<std::string>;

struct Codec {
    std::string depayloader;
    std::string parser;
    std::string decoder;
    std::string encoder;
};

bool has_v4l2_codecs(const std::string& platform)
{
    return platform == "v4l2" || platform == "ub2404";
}

std::string decoder_of(const std::string& platform, const std::string& codec)
{
    if (platform == "8550") return "qtic2vdec";
    if (has_v4l2_codecs(platform)) return codec == "H265" ? "v4l2h265dec" : "v4l2h264dec";
    return "qtivdec";
}

Codec codec_of(const std::string& platform, const std::string& codec)
{
    const bool is_h265 = codec == "H265";
    const std::string v4l2 = is_h265 ? "v4l2h265enc" : "v4l2h264enc";
    return {is_h265 ? "rtph265depay" : "rtph264depay", is_h265 ? "h265parse" : "h264parse", decoder_of(platform, codec),
            has_v4l2_codecs(platform) ? v4l2 : "qtic2venc"};
}

void append(Names& names, const Names& more)
{
    for (const std::string& name : more) {
        if (std::find(names.begin(), names.end(), name) == names.end()) names.push_back(name);
    }
}

Names input_elements(const StreamEntry& stream, const Codec& codec)
{
    const std::string type = stream.text("inputType");
    if (type == "rtsp") return {"rtspsrc", codec.depayloader, codec.parser, codec.decoder};
    if (type == "rtmp") return {"rtmpsrc", "flvdemux", codec.parser, codec.decoder};
    return {"qtdemux", codec.parser, codec.decoder};
}

/// MP4 files are always H.264.
Names mp4_elements(const std::string& platform)
{
    const std::string encoder = codec_of(platform, "H264").encoder;
    if (has_v4l2_codecs(platform)) return {"videoconvert", "videobox", encoder, "h264parse", "mp4mux"};
    return {encoder, "h264parse", "mp4mux"};
}

Names output_elements(const StreamEntry& stream, const std::string& platform)
{
    if (!stream.has_output()) return {};
    const std::string type = stream.text("outputType");
    const Codec codec = codec_of(platform, stream.codec("encodeType"));
    if (type == "wayland") return {"waylandsink"};
    if (type == "rtsp") return {codec.encoder, codec.parser, "rtspclientsink"};
    if (type == "mp4") return mp4_elements(platform);
    return {};
}

Names reencoder_elements(const std::string& platform, const Names& sink)
{
    Names names{"appsrc"};
    if (has_v4l2_codecs(platform)) names.push_back("videobox");
    append(names, {"videoconvert", codec_of(platform, "H264").encoder, "h264parse"});
    append(names, sink);
    return names;
}

/// The relay has no branch of its own for ub2404 and takes its default codecs there.
Names relay_elements(const StreamEntry& stream, const std::string& platform)
{
    const std::string codec_platform = platform == "ub2404" ? "6490" : platform;
    Codec codec = codec_of(codec_platform, stream.codec("decodeType"));
    codec.encoder = codec_of(codec_platform, "H264").encoder;
    Names names = input_elements(stream, codec);
    append(names, {"qtivtransform", codec.encoder, codec.parser});
    if (stream.text("inputType") == "rtsp") names.push_back("rtpmp4gdepay");
    append(names, {"aacparse", "mpegtsmux", "rtspclientsink"});
    return names;
}

Names recorder_elements(const StreamEntry& stream, const std::string& platform)
{
    const Codec codec = codec_of(platform, stream.codec("decodeType"));
    if (stream.text("inputType") == "rtsp")
        return {"rtspsrc", codec.depayloader, codec.parser, "splitmuxsink", "mp4mux"};
    return {"qtdemux", codec.parser, codec.decoder, "videorate", codec.encoder, "splitmuxsink", "mp4mux"};
}

} // namespace

StreamKind kind_of(const StreamEntry& stream)
{
    const bool has_size = stream.has("width") && stream.has("height");
    const std::string type = stream.text("inputType");
    if (has_size && stream.is_set("saveMp4")) return StreamKind::SaveMp4;
    if (has_size && stream.is_set("networkPush")) return StreamKind::NetworkPush;
    if (type == "splice") return StreamKind::Splice;
    if (stream.is_set("audio")) return StreamKind::AudioRelay;
    if (stream.is_set("rollingsave")) return StreamKind::Rolling;
    if (type == "usbcam") return StreamKind::UsbCamera;
    return type == "file" || type == "rtsp" || type == "rtmp" ? StreamKind::Ordinary : StreamKind::None;
}

std::string build_platform()
{
    return VELSTREAM_PLATFORM;
}

std::string describe_road(const StreamEntry& stream)
{
    const std::string type = stream.text("inputType");
    switch (kind_of(stream)) {
    case StreamKind::SaveMp4:
        return "application -> mp4";
    case StreamKind::NetworkPush:
        return "application -> rtsp";
    case StreamKind::Splice:
        return "application -> callback";
    case StreamKind::Rolling:
        return type + " -> rolling mp4";
    case StreamKind::AudioRelay:
        return type + " -> callback, rtsp with sound";
    default:
        break;
    }
    const std::string output = stream.has_output() ? stream.text("outputType") : "";
    return type + " -> callback" + (output.empty() ? "" : ", " + output);
}

std::vector<std::string> needed_split_elements(const StreamEntry& stream, const std::string& platform)
{
    Names names{"rtspsrc", "rtph264depay", "h264parse", "v4l2h264dec", "qtivsplit", "qtivtransform"};
    const std::string type = stream.text("outputType");
    if (type == "rtsp" || type == "wayland") append(names, output_elements(stream, platform));
    return names;
}

bool is_half_of_split(const StreamEntry& stream, const std::vector<StreamEntry>& streams)
{
    if (stream.parent.empty() || kind_of(stream) != StreamKind::Ordinary) return false;
    return std::any_of(streams.begin(), streams.end(), [&stream](const StreamEntry& other) {
        return other.index != stream.index && other.parent == stream.parent && kind_of(other) == StreamKind::Ordinary;
    });
}

std::vector<std::string> needed_elements(const StreamEntry& stream, const std::string& platform)
{
    Names names;
    switch (kind_of(stream)) {
    case StreamKind::Ordinary:
        names = input_elements(stream, codec_of(platform, stream.codec("decodeType")));
        append(names, {"qtivtransform"});
        append(names, output_elements(stream, platform));
        break;
    case StreamKind::UsbCamera:
        names = {"v4l2src", "jpegdec", "videoconvert", "qtivtransform"};
        append(names, output_elements(stream, platform));
        break;
    case StreamKind::Splice:
        names = {"appsrc", "h265parse", "qtic2vdec", "appsink"};
        break;
    case StreamKind::AudioRelay:
        names = relay_elements(stream, platform);
        break;
    case StreamKind::Rolling:
        names = recorder_elements(stream, platform);
        break;
    case StreamKind::SaveMp4:
        names = reencoder_elements(platform, {"mp4mux"});
        break;
    case StreamKind::NetworkPush:
        names = reencoder_elements(platform, {"rtspclientsink"});
        break;
    case StreamKind::None:
        break;
    }
    return names;
}

} // namespace velstream::tool

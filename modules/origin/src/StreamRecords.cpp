#include "StreamRecords.h"

namespace Quorvis::VelStream {

StreamIns::StreamIns()
    : streamsId("empty"), pStreamId("empty_p"), width(0), height(0), decodeType("H264"), encodeType("H264"),
      audio(false), saveMp4(false), networkPush(false), outputFile("/tmp/saved_output.mp4"), fps(0),
      manualRebuild(true), rollingsave(false), reserved(-1)
{
}

StreamIns::~StreamIns() = default;

Image::Image() = default;
Image::~Image() = default;

StreamProperty::StreamProperty()
    : reserved(-1), streamsId("empty"), pStreamId("empty_p"), width(0), height(0), decodeType("H264"),
      encodeType("H264"), audio(false), saveMp4(false), networkPush(false), outputFile("/tmp/saved_output.mp4"), fps(0),
      manualRebuild(true), rollingsave(false), rollingFps(30)
{
}

StreamProperty::StreamProperty(const StreamProperty& other) = default;
StreamProperty::~StreamProperty() = default;

void sync_data(StreamIns& ins, StreamProperty& prop)
{
    prop.streamsId = ins.streamsId;
    prop.pStreamId = ins.pStreamId;
    prop.width = ins.width;
    prop.height = ins.height;
    prop.inputType = ins.inputType;
    prop.inputAddr = ins.inputAddr;
    prop.outputType = ins.outputType;
    prop.outputAddr = ins.outputAddr;
    prop.decodeType = ins.decodeType;
    prop.encodeType = ins.encodeType;
    prop.audio = ins.audio;
    prop.saveMp4 = ins.saveMp4;
    prop.networkPush = ins.networkPush;
    prop.outputFile = ins.outputFile;
    prop.fps = ins.fps;
    prop.manualRebuild = ins.manualRebuild;
    prop.rollingsave = ins.rollingsave;
}

} // namespace Quorvis::VelStream

// What the frame tap costs a frame, the application's callback left empty.
#include "Handles.h"
#include "StreamBuild.h"

#include <benchmark/benchmark.h>

using namespace Quorvis::VelStream;

namespace {

PadPtr make_pad()
{
    PadPtr pad(GST_PAD(gst_object_ref_sink(gst_pad_new("src", GST_PAD_SRC))));
    gst_pad_set_active(pad.get(), TRUE);
    gst_pad_push_event(pad.get(), gst_event_new_stream_start("bench"));
    const CapsPtr caps(gst_caps_from_string("video/x-raw,format=RGB,width=1920,height=1080,framerate=25/1"));
    gst_pad_push_event(pad.get(), gst_event_new_caps(caps.get()));
    return pad;
}

template <GstPadProbeReturn (*Tap)(GstPad*, GstPadProbeInfo*, void*)>
void tap_1080p(benchmark::State& state)
{
    gst_init(nullptr, nullptr);
    set_log_level(GST_LOG_LEVEL_ERROR);
    const PadPtr pad = make_pad();
    const BufferPtr buffer(gst_buffer_new_allocate(nullptr, 1920 * 1080 * 3, nullptr));
    GST_BUFFER_PTS(buffer.get()) = 0;
    long frames = 0;
    PiplineData data;
    data.streamId = "bench";
    data.callback = [&frames](const Image& image) {
        frames += image.width == 1920 && image.data != nullptr;
        return int8_t{0};
    };
    GstPadProbeInfo info{};
    info.type = GST_PAD_PROBE_TYPE_BUFFER;
    info.data = buffer.get();
    for ([[maybe_unused]] auto _ : state)
        Tap(pad.get(), &info, &data);
    if (frames != static_cast<long>(state.iterations())) state.SkipWithError("frames are missing");
}

BENCHMARK(tap_1080p<on_buffer_received>)->Name("tap/plain");
BENCHMARK(tap_1080p<on_buffer_received_v4l2>)->Name("tap/v4l2");

} // namespace

BENCHMARK_MAIN();

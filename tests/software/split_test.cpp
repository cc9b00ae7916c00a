#include "video_frames.h"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <malloc.h>

namespace {

using namespace velstream::test;

class Split : public testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

/// A splitter with a harness at its sink pad and one at each of "src_0" and "src_1".
struct TwoBranches {
    ElementPtr element{GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("qtivsplit", nullptr)))};
    HarnessPtr second{nullptr};
    HarnessPtr first{nullptr};
    HarnessPtr input{nullptr};

    TwoBranches(const std::string& in_caps, const std::string& first_caps, const std::string& second_caps)
    {
        input.reset(gst_harness_new_with_element(element.get(), "sink", nullptr));
        first.reset(gst_harness_new_with_element(element.get(), nullptr, "src_0"));
        second.reset(gst_harness_new_with_element(element.get(), nullptr, "src_1"));
        if (!first_caps.empty()) gst_harness_set_sink_caps_str(first.get(), first_caps.c_str());
        if (!second_caps.empty()) gst_harness_set_sink_caps_str(second.get(), second_caps.c_str());
        gst_harness_set_src_caps_str(input.get(), in_caps.c_str());
    }

    GstFlowReturn push(const BufferPtr& buffer) { return gst_harness_push(input.get(), gst_buffer_ref(buffer.get())); }
    static BufferPtr pull(const HarnessPtr& branch) { return BufferPtr(gst_harness_pull(branch.get())); }
};

const std::string kNv12 = video_caps(size_caps("NV12", 640, 360));

/// A frame with a time of its own.
BufferPtr numbered_frame(const std::string& caps, int number)
{
    static const std::string known_caps = caps;
    static const BufferPtr known = make_frame(known_caps);
    BufferPtr buffer = caps == known_caps ? BufferPtr(gst_buffer_copy(known.get())) : make_frame(caps);
    GST_BUFFER_PTS(buffer.get()) = static_cast<GstClockTime>(number) * 40 * GST_MSECOND;
    GST_BUFFER_DURATION(buffer.get()) = 40 * GST_MSECOND;
    return buffer;
}

bool wait_for_event(const HarnessPtr& harness, GstEventType type)
{
    while (GstEvent* event = gst_harness_pull_event(harness.get())) {
        const bool is_found = GST_EVENT_TYPE(event) == type;
        gst_event_unref(event);
        if (is_found) return true;
    }
    return false;
}

TEST_F(Split, EachPadHasItsOwnSizeAndFormat)
{
    const std::string rgb = video_caps(size_caps("RGB", 854, 480));
    const std::string small = video_caps(size_caps("NV12", 320, 180) + ",colorimetry=bt709", "(memory:GBM)");
    TwoBranches split(kNv12, rgb, small);
    const BufferPtr input = numbered_frame(kNv12, 7);
    ASSERT_EQ(split.push(input), GST_FLOW_OK);
    for (const auto& [branch, caps] : {std::pair{&split.first, rgb}, std::pair{&split.second, small}}) {
        const BufferPtr actual = TwoBranches::pull(*branch);
        const BufferPtr expected = convert("qtivtransform", kNv12, caps, input);
        ASSERT_TRUE(actual);
        EXPECT_EQ(psnr(actual.get(), expected.get(), caps), INFINITY) << caps;
        EXPECT_EQ(GST_BUFFER_PTS(actual.get()), 280 * GST_MSECOND);
        EXPECT_EQ(GST_BUFFER_DURATION(actual.get()), 40 * GST_MSECOND);
        const CapsPtr wanted(gst_caps_from_string(caps.c_str()));
        const CapsPtr given(gst_pad_get_current_caps((*branch)->sinkpad));
        EXPECT_TRUE(gst_caps_can_intersect(given.get(), wanted.get())) << output_caps(*branch);
    }
}

TEST_F(Split, RgbRowsAreTight)
{
    TwoBranches split(kNv12, "video/x-raw,format=RGB,width=854,height=48", "");
    ASSERT_EQ(split.push(make_frame(kNv12)), GST_FLOW_OK);
    const BufferPtr output = TwoBranches::pull(split.first);
    const GstVideoMeta* meta = gst_buffer_get_video_meta(output.get());
    ASSERT_NE(meta, nullptr);
    EXPECT_EQ(meta->stride[0], 3 * 854);
}

TEST_F(Split, PadThatAsksForNothingHasTheFrameItself)
{
    TwoBranches split(kNv12, "", "video/x-raw,format=RGB");
    const BufferPtr input = make_frame(kNv12);
    ASSERT_EQ(split.push(input), GST_FLOW_OK);
    EXPECT_EQ(TwoBranches::pull(split.first).get(), input.get());
    EXPECT_NE(TwoBranches::pull(split.second).get(), input.get());
}

TEST_F(Split, BothBranchesSeeEveryFrameInOrder)
{
    TwoBranches split(kNv12, "", "video/x-raw,format=RGB,width=64,height=48");
    constexpr int kFrames = 200;
    for (int i = 0; i < kFrames; ++i)
        ASSERT_EQ(split.push(numbered_frame(kNv12, i)), GST_FLOW_OK);
    for (const HarnessPtr* branch : {&split.first, &split.second}) {
        for (int i = 0; i < kFrames; ++i) {
            const BufferPtr output = TwoBranches::pull(*branch);
            ASSERT_TRUE(output) << i;
            ASSERT_EQ(GST_BUFFER_PTS(output.get()), static_cast<GstClockTime>(i) * 40 * GST_MSECOND);
        }
    }
}

struct Blocker {
    std::promise<void> reached;
    std::shared_future<void> release;
    std::atomic<bool> is_reached{false};
};

/// Holds the branch's own thread until released.
GstPadProbeReturn hold(GstPad*, GstPadProbeInfo*, gpointer data)
{
    auto* blocker = static_cast<Blocker*>(data);
    if (!blocker->is_reached.exchange(true)) blocker->reached.set_value();
    blocker->release.wait();
    return GST_PAD_PROBE_OK;
}

TEST_F(Split, SlowBranchDelaysTheOtherOnlyWhenItsQueueIsFull)
{
    std::promise<void> release;
    Blocker blocker; // outlives the branch that it holds
    blocker.release = release.get_future().share();
    TwoBranches split(kNv12, "", "");
    const PadPtr slow(gst_element_get_static_pad(split.element.get(), "src_1"));
    gst_pad_add_probe(slow.get(), GST_PAD_PROBE_TYPE_BUFFER, hold, &blocker, nullptr);
    ASSERT_EQ(split.push(numbered_frame(kNv12, 0)), GST_FLOW_OK);
    blocker.reached.get_future().wait();
    for (int i = 1; i < 4; ++i) // one is held, three wait
        ASSERT_EQ(split.push(numbered_frame(kNv12, i)), GST_FLOW_OK);
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(GST_BUFFER_PTS(TwoBranches::pull(split.first).get()),
                  static_cast<GstClockTime>(i) * 40 * GST_MSECOND);
    auto fifth = std::async(std::launch::async, [&] { return split.push(numbered_frame(kNv12, 4)); });
    // It has reached the fast branch, and waits for room in the slow one.
    EXPECT_EQ(GST_BUFFER_PTS(TwoBranches::pull(split.first).get()), 160 * GST_MSECOND);
    EXPECT_EQ(fifth.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    release.set_value();
    EXPECT_EQ(fifth.get(), GST_FLOW_OK);
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(GST_BUFFER_PTS(TwoBranches::pull(split.second).get()),
                  static_cast<GstClockTime>(i) * 40 * GST_MSECOND);
}

TEST_F(Split, BranchThatIsUnlinkedWhileItIsFullLetsTheOtherGoOn)
{
    std::promise<void> release;
    Blocker blocker; // outlives the branch that it holds
    blocker.release = release.get_future().share();
    TwoBranches split(kNv12, "", "");
    const PadPtr slow(gst_element_get_static_pad(split.element.get(), "src_1"));
    gst_pad_add_probe(slow.get(), GST_PAD_PROBE_TYPE_BUFFER, hold, &blocker, nullptr);
    ASSERT_EQ(split.push(numbered_frame(kNv12, 0)), GST_FLOW_OK);
    blocker.reached.get_future().wait();
    auto rest = std::async(std::launch::async, [&] {
        GstFlowReturn flow = GST_FLOW_OK;
        for (int i = 1; i < 20 && flow == GST_FLOW_OK; ++i)
            flow = split.push(numbered_frame(kNv12, i));
        return flow;
    });
    for (int i = 0; i < 5; ++i)
        ASSERT_TRUE(TwoBranches::pull(split.first));
    gst_pad_unlink(slow.get(), split.second->sinkpad);
    EXPECT_EQ(rest.get(), GST_FLOW_OK);
    for (int i = 5; i < 20; ++i)
        EXPECT_EQ(GST_BUFFER_PTS(TwoBranches::pull(split.first).get()),
                  static_cast<GstClockTime>(i) * 40 * GST_MSECOND);
    release.set_value();
}

TEST_F(Split, PadWithoutAPeerIsPassedOver)
{
    TwoBranches split(kNv12, "", "");
    const PadPtr lone(gst_element_request_pad_simple(split.element.get(), "src_%u"));
    ASSERT_TRUE(lone);
    EXPECT_STREQ(GST_PAD_NAME(lone.get()), "src_2");
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(split.push(numbered_frame(kNv12, i)), GST_FLOW_OK);
        ASSERT_TRUE(TwoBranches::pull(split.first));
        ASSERT_TRUE(TwoBranches::pull(split.second));
    }
}

TEST_F(Split, WithoutAnyPeerTheStreamIsNotLinked)
{
    const ElementPtr element(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("qtivsplit", nullptr))));
    const HarnessPtr input(gst_harness_new_with_element(element.get(), "sink", nullptr));
    gst_harness_set_src_caps_str(input.get(), kNv12.c_str());
    gst_harness_play(input.get());
    EXPECT_EQ(gst_harness_push(input.get(), make_frame(kNv12).release()), GST_FLOW_NOT_LINKED);
}

/// What a branch's peer answers to every frame.
GstFlowReturn answer(GstPad* pad, GstObject*, GstBuffer* buffer)
{
    gst_buffer_unref(buffer);
    return static_cast<GstFlowReturn>(GPOINTER_TO_INT(pad->chaindata));
}

GstFlowReturn flow_after(TwoBranches& split, int frames)
{
    GstFlowReturn flow = GST_FLOW_OK;
    for (int i = 0; i < frames && flow == GST_FLOW_OK; ++i) {
        flow = split.push(numbered_frame(kNv12, i));
        if (flow == GST_FLOW_OK && !TwoBranches::pull(split.first)) return GST_FLOW_CUSTOM_ERROR;
    }
    return flow;
}

TEST_F(Split, BranchAtItsEndOrFlushingDoesNotStopTheOther)
{
    for (const GstFlowReturn gone : {GST_FLOW_EOS, GST_FLOW_FLUSHING, GST_FLOW_NOT_LINKED}) {
        TwoBranches split(kNv12, "", "");
        gst_pad_set_chain_function_full(split.second->sinkpad, answer, GINT_TO_POINTER(gone), nullptr);
        EXPECT_EQ(flow_after(split, 50), GST_FLOW_OK) << gst_flow_get_name(gone);
    }
}

TEST_F(Split, FailedBranchEndsTheStreamWithItsError)
{
    for (const GstFlowReturn failure : {GST_FLOW_ERROR, GST_FLOW_NOT_NEGOTIATED}) {
        TwoBranches split(kNv12, "", "");
        gst_pad_set_chain_function_full(split.second->sinkpad, answer, GINT_TO_POINTER(failure), nullptr);
        EXPECT_EQ(flow_after(split, 100000), failure);
    }
}

TEST_F(Split, AllBranchesAtTheirEndEndTheStream)
{
    TwoBranches split(kNv12, "", "");
    for (const HarnessPtr* branch : {&split.first, &split.second})
        gst_pad_set_chain_function_full((*branch)->sinkpad, answer, GINT_TO_POINTER(GST_FLOW_EOS), nullptr);
    GstFlowReturn flow = GST_FLOW_OK;
    for (int i = 0; i < 100000 && flow == GST_FLOW_OK; ++i)
        flow = split.push(numbered_frame(kNv12, i));
    EXPECT_EQ(flow, GST_FLOW_EOS);
}

TEST_F(Split, CapsThatNoBranchCanMakeAreRefused)
{
    TwoBranches split(kNv12, "", "audio/x-raw");
    GstFlowReturn flow = GST_FLOW_OK;
    for (int i = 0; i < 100000 && flow == GST_FLOW_OK; ++i)
        flow = split.push(numbered_frame(kNv12, i));
    EXPECT_EQ(flow, GST_FLOW_NOT_NEGOTIATED);
}

TEST_F(Split, EndOfStreamReachesEveryBranchBehindItsLastFrame)
{
    TwoBranches split(kNv12, "", "video/x-raw,format=RGB");
    for (int i = 0; i < 3; ++i)
        ASSERT_EQ(split.push(numbered_frame(kNv12, i)), GST_FLOW_OK);
    EXPECT_TRUE(gst_harness_push_event(split.input.get(), gst_event_new_eos()));
    for (const HarnessPtr* branch : {&split.first, &split.second}) {
        EXPECT_TRUE(wait_for_event(*branch, GST_EVENT_EOS));
        EXPECT_EQ(gst_harness_buffers_in_queue(branch->get()), 3U);
    }
}

std::string stream_id_of(const HarnessPtr& branch)
{
    gchar* id = gst_pad_get_stream_id(branch->sinkpad);
    const std::string result = id ? id : "";
    g_free(id);
    return result;
}

TEST_F(Split, EachBranchIsAStreamOfItsOwn)
{
    TwoBranches split(kNv12, "", "");
    ASSERT_EQ(split.push(make_frame(kNv12)), GST_FLOW_OK);
    ASSERT_TRUE(TwoBranches::pull(split.first));
    ASSERT_TRUE(TwoBranches::pull(split.second));
    EXPECT_NE(stream_id_of(split.first), "");
    EXPECT_NE(stream_id_of(split.first), stream_id_of(split.second));
}

TEST_F(Split, PadThatComesLateHearsWhatTheOthersHaveHeard)
{
    TwoBranches split(kNv12, "", "");
    ASSERT_EQ(split.push(numbered_frame(kNv12, 0)), GST_FLOW_OK);
    const HarnessPtr late(gst_harness_new_with_element(split.element.get(), nullptr, "src_%u"));
    gst_harness_set_sink_caps_str(late.get(), "video/x-raw,format=BGRA,width=32,height=24");
    ASSERT_EQ(split.push(numbered_frame(kNv12, 1)), GST_FLOW_OK);
    const BufferPtr output(gst_harness_pull(late.get()));
    ASSERT_TRUE(output);
    EXPECT_EQ(GST_BUFFER_PTS(output.get()), 40 * GST_MSECOND);
    EXPECT_NE(output_caps(late).find("format=(string)BGRA"), std::string::npos) << output_caps(late);
    GstEvent* segment = gst_pad_get_sticky_event(late->sinkpad, GST_EVENT_SEGMENT, 0);
    EXPECT_NE(segment, nullptr);
    if (segment) gst_event_unref(segment);
}

TEST_F(Split, PadsAreRequestedByNameAndOnlyOnce)
{
    const ElementPtr element(GST_ELEMENT(gst_object_ref_sink(gst_element_factory_make("qtivsplit", nullptr))));
    const PadPtr named(gst_element_request_pad_simple(element.get(), "src_1"));
    ASSERT_TRUE(named);
    EXPECT_STREQ(GST_PAD_NAME(named.get()), "src_1");
    const PadPtr first(gst_element_request_pad_simple(element.get(), "src_%u"));
    EXPECT_STREQ(GST_PAD_NAME(first.get()), "src_0");
    const PadPtr third(gst_element_request_pad_simple(element.get(), "src_%u"));
    EXPECT_STREQ(GST_PAD_NAME(third.get()), "src_2");
    EXPECT_EQ(GST_ELEMENT(element.get())->numsrcpads, 3);
    for (const PadPtr* pad : {&named, &first, &third})
        gst_element_release_request_pad(element.get(), pad->get());
    EXPECT_EQ(GST_ELEMENT(element.get())->numsrcpads, 0);
}

TEST_F(Split, NewCapsInMidStreamReachEveryBranch)
{
    TwoBranches split(kNv12, "", "video/x-raw,format=RGB");
    for (const auto& [format, width, height] :
         {std::tuple{"NV12", 640, 360}, std::tuple{"I420", 322, 182}, std::tuple{"BGRA", 64, 48}}) {
        const std::string caps = video_caps(size_caps(format, width, height));
        gst_harness_set_src_caps_str(split.input.get(), caps.c_str());
        ASSERT_EQ(split.push(make_frame(caps)), GST_FLOW_OK);
        ASSERT_TRUE(TwoBranches::pull(split.first));
        ASSERT_TRUE(TwoBranches::pull(split.second));
        const std::string size = "width=(int)" + std::to_string(width) + ", height=(int)" + std::to_string(height);
        EXPECT_NE(output_caps(split.first).find(std::string("format=(string)") + format + ", " + size),
                  std::string::npos)
            << output_caps(split.first);
        EXPECT_NE(output_caps(split.second).find("format=(string)RGB, " + size), std::string::npos);
    }
}

TEST_F(Split, BranchThatAsksForOtherCapsGetsThemInMidStream)
{
    TwoBranches split(kNv12, "video/x-raw,format=RGB,width=64,height=48", "");
    ASSERT_EQ(split.push(make_frame(kNv12)), GST_FLOW_OK);
    ASSERT_TRUE(TwoBranches::pull(split.first));
    gst_harness_set_sink_caps_str(split.first.get(), "video/x-raw,format=BGRA,width=32,height=24");
    gst_harness_push_upstream_event(split.first.get(), gst_event_new_reconfigure());
    ASSERT_EQ(split.push(make_frame(kNv12)), GST_FLOW_OK);
    const BufferPtr output = TwoBranches::pull(split.first);
    EXPECT_EQ(gst_buffer_get_size(output.get()), 32U * 24 * 4) << output_caps(split.first);
}

TEST_F(Split, FlowsAgainAfterAFlush)
{
    TwoBranches split(kNv12, "", "video/x-raw,format=RGB");
    for (int round = 0; round < 20; ++round) {
        for (int i = 0; i < 5; ++i)
            ASSERT_EQ(split.push(numbered_frame(kNv12, i)), GST_FLOW_OK) << round;
        ASSERT_TRUE(gst_harness_push_event(split.input.get(), gst_event_new_flush_start()));
        ASSERT_TRUE(gst_harness_push_event(split.input.get(), gst_event_new_flush_stop(TRUE)));
        GstSegment segment;
        gst_segment_init(&segment, GST_FORMAT_TIME);
        ASSERT_TRUE(gst_harness_push_event(split.input.get(), gst_event_new_segment(&segment)));
        for (const HarnessPtr* branch : {&split.first, &split.second})
            while (BufferPtr old{gst_harness_try_pull(branch->get())}) {
            }
        ASSERT_EQ(split.push(numbered_frame(kNv12, 77)), GST_FLOW_OK);
        for (const HarnessPtr* branch : {&split.first, &split.second})
            EXPECT_EQ(GST_BUFFER_PTS(TwoBranches::pull(*branch).get()), 77U * 40 * GST_MSECOND);
    }
}

TEST_F(Split, UpstreamLatencyIsReportedUnchanged)
{
    TwoBranches split(kNv12, "", "");
    gst_harness_set_upstream_latency(split.input.get(), 40 * GST_MSECOND);
    ASSERT_EQ(split.push(make_frame(kNv12)), GST_FLOW_OK);
    EXPECT_EQ(gst_harness_query_latency(split.first.get()), 40 * GST_MSECOND);
    EXPECT_EQ(gst_harness_query_latency(split.second.get()), 40 * GST_MSECOND);
}

TEST_F(Split, PadIsReleasedWhileFramesFlow)
{
    TwoBranches split(kNv12, "", "");
    std::atomic<bool> is_done{false};
    auto frames = std::async(std::launch::async, [&] {
        bool is_ok = true;
        while (!is_done)
            is_ok &= split.push(numbered_frame(kNv12, 0)) == GST_FLOW_OK && TwoBranches::pull(split.first);
        return is_ok;
    });
    for (int round = 0; round < 200; ++round) {
        const HarnessPtr extra(gst_harness_new_with_element(split.element.get(), nullptr, "src_%u"));
        const PadPtr pad(gst_pad_get_peer(extra->sinkpad));
        ASSERT_TRUE(pad);
        if (round % 2) BufferPtr(gst_harness_pull(extra.get()));
        gst_pad_unlink(pad.get(), extra->sinkpad);
        gst_element_release_request_pad(split.element.get(), pad.get());
    }
    is_done = true;
    EXPECT_TRUE(frames.get());
}

/// Plays to the end; false: an error, or nothing within a minute.
bool plays_to_its_end(const std::string& launch)
{
    GError* error = nullptr;
    const ElementPtr pipeline(gst_parse_launch(launch.c_str(), &error));
    if (error) {
        ADD_FAILURE() << error->message;
        g_error_free(error);
        return false;
    }
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    GstBus* bus = gst_element_get_bus(pipeline.get());
    GstMessage* message = gst_bus_timed_pop_filtered(bus, 60 * GST_SECOND,
                                                     static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const bool is_end = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    if (message) gst_message_unref(message);
    gst_object_unref(bus);
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    return is_end;
}

TEST_F(Split, RunsInLaunchedPipelinesWithoutQueues)
{
    const std::string source = "videotestsrc num-buffers=20 ! video/x-raw,format=NV12,width=854,height=480 ! ";
    EXPECT_TRUE(plays_to_its_end(source + "queue ! qtivsplit name=s engine=2 "
                                          "s.src_0 ! qtivtransform ! video/x-raw,format=RGB ! queue ! fakesink "
                                          "s.src_1 ! qtivtransform ! video/x-raw,format=RGB ! fakesink"));
    EXPECT_TRUE(plays_to_its_end(source + "qtivsplit name=s s. ! video/x-raw(memory:GBM),width=320,height=240 ! "
                                          "fakesink s. ! video/x-raw,format=BGRx ! fakesink s. ! fakesink"));
}

TEST_F(Split, ThousandStartsAndStopsKeepTheHeapFlat)
{
    const std::string in_caps = video_caps(size_caps("NV12", 64, 48));
    const BufferPtr input = make_frame(in_caps);
    double after_warm_up = 0;
    const auto heap_in_use = [] {
        const struct mallinfo2 info = mallinfo2();
        return static_cast<double>(info.uordblks + info.hblkhd);
    };
    for (int round = 0; round < 1000; ++round) {
        if (round == 100) after_warm_up = heap_in_use();
        TwoBranches split(in_caps, "", "video/x-raw,format=RGB");
        ASSERT_EQ(split.push(input), GST_FLOW_OK);
        if (round % 2) continue; // stops with the frame still under way
        ASSERT_TRUE(TwoBranches::pull(split.second));
    }
    // One leaked frame a round would be 4 MB.
    EXPECT_LT(heap_in_use() - after_warm_up, 1.0e6);
}

} // namespace

// The result codes, the gate, the messages and the life of a stream. What these tests push need not be decodable.
#include "ConfigFile.h"
#include "Elements.h"
#include "SpliceStream.h"
#include "StreamBuildSplice.h"

#include <gst/app/gstappsrc.h>
#include <gtest/gtest.h>

#include <future>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

int8_t ignore(const Image&)
{
    return 0;
}

FrameCallback some_callback()
{
    return ignore;
}

/// Makes an element unknown to this process.
void forget_element(const char* factory)
{
    gst_init(nullptr, nullptr);
    GstRegistry* registry = gst_registry_get();
    GstPluginFeature* feature = gst_registry_lookup_feature(registry, factory);
    ASSERT_NE(feature, nullptr) << factory;
    gst_registry_remove_feature(registry, feature);
    gst_object_unref(feature);
}

ElementPtr pipeline_of(const std::string& id)
{
    const auto context = find_splice_stream(id);
    const std::lock_guard lock(context->mutex);
    return share(context->pipeline);
}

void post_error(const std::string& id)
{
    const ElementPtr pipeline = pipeline_of(id);
    const ErrorPtr error(g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_DECODE, "Made by a test."));
    gst_element_post_message(pipeline.get(),
                             gst_message_new_error(GST_OBJECT(pipeline.get()), error.get(), "details of it"));
}

bool wait_for_code(const SpliceStream& stream, int code)
{
    return wait_until([&] { return stream.push(nal_unit(1)) == code; });
}

const Bytes kParameterSets = nal_units({32, 33, 34});
const Bytes kKeyUnit = nal_units({32, 33, 34, 19});

} // namespace

TEST(SpliceCodes, StartRefusesEmptyIdAndEmptyCallback)
{
    FrameCallback callback = some_callback();
    EXPECT_EQ(start_splice_stream("", callback), -1);
    EXPECT_TRUE(callback) << "a refused callback stays the caller's";
    FrameCallback empty;
    EXPECT_EQ(start_splice_stream("one", empty), -1);
    EXPECT_EQ(find_splice_stream("one"), nullptr);
}

TEST(SpliceCodes, PutRefusesNullDataSizeZeroAndEmptyId)
{
    const SpliceStream stream("one", some_callback());
    ASSERT_EQ(stream.start_result(), 0);
    EXPECT_EQ(decode_put_frame_splice(nullptr, 10, "one", 0, true), -1);
    EXPECT_EQ(decode_put_frame_splice(kKeyUnit.data(), 0, "one", 0, true), -1);
    EXPECT_EQ(decode_put_frame_splice(kKeyUnit.data(), kKeyUnit.size(), "", 0, true), -1);
}

TEST(SpliceCodes, UnknownStreamIsMinusThree)
{
    EXPECT_EQ(decode_put_frame_splice(kKeyUnit.data(), kKeyUnit.size(), "nobody", 0, true), -3);
    EXPECT_EQ(stop_splice_stream("nobody"), -3);
    EXPECT_EQ(stop_splice_stream(""), -3);
}

TEST(SpliceCodes, StoppingTwiceIsZeroThenMinusThree)
{
    const SpliceStream stream("one", some_callback());
    ASSERT_EQ(stream.start_result(), 0);
    EXPECT_EQ(stream.stop(), 0);
    EXPECT_EQ(stream.stop(), -3);
    EXPECT_EQ(stream.push(kKeyUnit), -3);
}

TEST(SpliceCodes, TakenIdIsMinusTwoAndTheFirstStreamGoesOn)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    FrameLog log;
    const SpliceStream first("one", log.callback());
    ASSERT_EQ(first.start_result(), 0);
    const auto context = find_splice_stream("one");
    FrameCallback second = some_callback();
    EXPECT_EQ(start_splice_stream("one", second), -2);
    EXPECT_EQ(find_splice_stream("one"), context);
    for (const AccessUnit& unit : units)
        ASSERT_EQ(first.push(unit), 0);
    EXPECT_TRUE(log.wait_for(units.size()));
}

TEST(SpliceCodes, StoppedIdCanBeStartedAgainWithAShutGate)
{
    for (int round = 0; round < 3; ++round) {
        const SpliceStream stream("one", some_callback());
        ASSERT_EQ(stream.start_result(), 0) << round;
        EXPECT_EQ(stream.push(nal_unit(1)), -6);
        EXPECT_EQ(stream.push(kKeyUnit), 0);
        EXPECT_EQ(stream.stop(), 0);
    }
}

TEST(SpliceGate, UnitBeforeParameterSetsIsDropped)
{
    const SpliceStream stream("one", some_callback());
    EXPECT_EQ(stream.push(nal_unit(1)), -6);
    EXPECT_EQ(stream.push(nal_unit(19)), -6);
    EXPECT_EQ(stream.push(nal_unit(19), 0, true), -6);
}

TEST(SpliceGate, OneUnitWithAllOpensIt)
{
    const SpliceStream stream("one", some_callback());
    EXPECT_EQ(stream.push(kKeyUnit, 40), 0);
    EXPECT_EQ(stream.push(nal_unit(1), 80), 0);
}

TEST(SpliceGate, SeparateParameterSetsAreDroppedThenAKeyFramePasses)
{
    const SpliceStream stream("one", some_callback());
    EXPECT_EQ(stream.push(nal_unit(34)), -6);
    EXPECT_EQ(stream.push(nal_unit(32)), -6);
    EXPECT_EQ(stream.push(nal_unit(33)), -6);
    EXPECT_EQ(stream.push(nal_unit(1)), -6);
    EXPECT_EQ(stream.push(nal_unit(21)), 0);
    EXPECT_EQ(stream.push(nal_unit(1)), 0) << "it never shuts again";
}

TEST(SpliceGate, EveryRandomAccessTypeIsAKeyFrameAndNoOther)
{
    for (unsigned type = 0; type < 32; ++type) {
        const SpliceStream stream("one", some_callback());
        EXPECT_EQ(stream.push(kParameterSets), -6);
        EXPECT_EQ(stream.push(nal_unit(type)), type >= 16 && type <= 21 ? 0 : -6) << type;
    }
}

TEST(SpliceGate, CallersWordMakesAKeyFrame)
{
    const SpliceStream stream("one", some_callback());
    EXPECT_EQ(stream.push(kParameterSets), -6);
    EXPECT_EQ(stream.push(nal_unit(1), 0, true), 0);
}

TEST(SpliceGate, UnitThatCompletesTheSetsPassesAsTheCallersKeyFrame)
{
    const SpliceStream stream("one", some_callback());
    EXPECT_EQ(stream.push(nal_units({32, 33})), -6);
    EXPECT_EQ(stream.push(nal_unit(34), 0, true), 0);
}

TEST(SpliceGate, DroppedUnitsKeepTheLastTimeStamp)
{
    const SpliceStream stream("one", some_callback());
    const auto context = find_splice_stream("one");
    EXPECT_EQ(stream.push(nal_unit(1), 40), -6);
    EXPECT_EQ(context->last_pts, -1);
    EXPECT_EQ(stream.push(kKeyUnit, 80), 0);
    EXPECT_EQ(context->last_pts, 80);
    EXPECT_EQ(stream.push(nal_unit(1), -7), 0);
    EXPECT_EQ(context->last_pts, -7);
}

TEST(SplicePush, UnitReachesTheParserWithItsTimeStampsOrWithNone)
{
    const SpliceStream stream("one", some_callback());
    const ElementPtr source = appsrc_of(*find_splice_stream("one"));
    const PadPtr pad(gst_element_get_static_pad(source.get(), "src"));
    struct Seen {
        std::mutex mutex;
        std::vector<std::pair<GstClockTime, GstClockTime>> times;
        std::vector<gsize> sizes;
    } seen;
    const auto probe = [](GstPad*, GstPadProbeInfo* info, gpointer user_data) {
        auto* into = static_cast<Seen*>(user_data);
        GstBuffer* buffer = GST_PAD_PROBE_INFO_BUFFER(info);
        const std::lock_guard lock(into->mutex);
        into->times.emplace_back(GST_BUFFER_PTS(buffer), GST_BUFFER_DTS(buffer));
        into->sizes.push_back(gst_buffer_get_size(buffer));
        EXPECT_FALSE(GST_BUFFER_DURATION_IS_VALID(buffer));
        return GST_PAD_PROBE_OK;
    };
    gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, probe, &seen, nullptr);
    EXPECT_EQ(stream.push(kKeyUnit, 1000), 0);
    EXPECT_EQ(stream.push(nal_unit(1), -1), 0);
    EXPECT_EQ(stream.push(nal_unit(1), -99), 0);
    ASSERT_TRUE(wait_until([&] {
        const std::lock_guard lock(seen.mutex);
        return seen.times.size() == 3;
    }));
    EXPECT_EQ(stream.stop(), 0);
    const std::pair none(GST_CLOCK_TIME_NONE, GST_CLOCK_TIME_NONE);
    EXPECT_EQ(seen.times, (std::vector<std::pair<GstClockTime, GstClockTime>>{{1000, 1000}, none, none}));
    EXPECT_EQ(seen.sizes, (std::vector<gsize>{kKeyUnit.size(), nal_unit(1).size(), nal_unit(1).size()}));
}

TEST(SplicePipeline, IsTheOneThatIsDescribed)
{
    const SpliceStream stream("one", some_callback());
    const ElementPtr pipeline = pipeline_of("one");
    const auto text_of = [](GstElement* element, const char* property) {
        GValue value = G_VALUE_INIT;
        g_object_get_property(G_OBJECT(element), property, &value);
        const TextPtr text(gst_value_serialize(&value));
        g_value_unset(&value);
        return std::string(text.get());
    };
    const ElementPtr source(gst_bin_get_by_name(GST_BIN(pipeline.get()), "src"));
    const ElementPtr sink(gst_bin_get_by_name(GST_BIN(pipeline.get()), "sink"));
    ASSERT_TRUE(source && sink);
    std::vector<std::string> chain = chain_from(source.get());
    ASSERT_EQ(chain.size(), 5U) << "nothing beside the chain";
    EXPECT_EQ(chain[3].substr(0, 10), "capsfilter");
    chain.erase(chain.begin() + 3);
    EXPECT_EQ(chain, (std::vector<std::string>{"appsrc:src", "h265parse", "qtic2vdec", "appsink:sink"}));
    EXPECT_EQ(factories_in(pipeline.get()).size(), 5U);
    const ElementPtr parser = child_of_factory(pipeline.get(), "h265parse");
    EXPECT_EQ(text_of(parser.get(), "disable-passthrough"), "true");
    const ElementPtr filter = child_of_factory(pipeline.get(), "capsfilter");
    EXPECT_TRUE(has_caps(filter.get(), "video/x-raw,format=NV12"));
    EXPECT_EQ(text_of(source.get(), "block"), "true");
    EXPECT_EQ(text_of(source.get(), "is-live"), "false");
    EXPECT_EQ(text_of(source.get(), "format"), "time");
    EXPECT_EQ(text_of(source.get(), "stream-type"), "stream");
    EXPECT_EQ(text_of(source.get(), "max-bytes"), "4194304");
    const CapsPtr caps(gst_app_src_get_caps(GST_APP_SRC(source.get())));
    const CapsPtr expected(gst_caps_from_string("video/x-h265,stream-format=byte-stream,alignment=au"));
    EXPECT_TRUE(gst_caps_is_equal(caps.get(), expected.get()));
    EXPECT_EQ(text_of(sink.get(), "emit-signals"), "true");
    EXPECT_EQ(text_of(sink.get(), "sync"), "false");
    EXPECT_EQ(text_of(sink.get(), "max-buffers"), "4");
    EXPECT_EQ(text_of(sink.get(), "drop"), "true");
}

TEST(SpliceStart, MissingDecoderIsMinusFourWithItsMessage)
{
    forget_element("qtic2vdec");
    const StandardStreams printed;
    const SpliceStream stream("one", some_callback());
    EXPECT_EQ(stream.start_result(), -4);
    EXPECT_EQ(find_splice_stream("one"), nullptr);
    EXPECT_EQ(printed.error(), "[ERROR][one] create pipeline failed\n[ERROR][one] no element \"qtic2vdec\"\n");
    EXPECT_EQ(printed.out(), "");
}

TEST(SpliceStart, PropertyThatIsMissingDoesNotHideAMissingDecoder)
{
    forget_element("qtic2vdec");
    const ElementStandIn parser("h265parse", "identity"); // has no such property
    const StandardStreams printed;
    const SpliceStream stream("one", some_callback());
    EXPECT_EQ(stream.start_result(), -4);
    EXPECT_EQ(printed.error().find("[ERROR][one] create pipeline failed\n"), 0U) << printed.error();
}

TEST(SpliceStart, DecoderThatCannotPlayIsMinusFourWithItsMessage)
{
    forget_element("avdec_h265"); // what the software decoder is made of
    forget_element("avdec_h264");
    const StandardStreams printed;
    const SpliceStream stream("one", some_callback());
    EXPECT_EQ(stream.start_result(), -4);
    EXPECT_EQ(find_splice_stream("one"), nullptr);
    EXPECT_EQ(printed.error(), "[ERROR][one] set PLAYING failed\n");
}

TEST(SpliceMessages, StatesAreThePipelinesAlone)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    const StandardStreams printed;
    const SpliceStream stream("one", some_callback());
    for (const AccessUnit& unit : units)
        ASSERT_EQ(stream.push(unit), 0);
    const std::string expected =
        "[STATE][one] NULL -> READY\n[STATE][one] READY -> PAUSED\n[STATE][one] PAUSED -> PLAYING\n";
    EXPECT_TRUE(wait_until([&] { return printed.out().size() >= expected.size(); }));
    EXPECT_EQ(printed.out(), expected);
    EXPECT_EQ(printed.error(), "");
}

TEST(SpliceMessages, ErrorIsPrintedWithItsDetailsAndEndsTheStream)
{
    const StandardStreams printed;
    const SpliceStream stream("one", some_callback());
    ASSERT_EQ(stream.push(kKeyUnit), 0);
    post_error("one");
    EXPECT_TRUE(wait_for_code(stream, -5));
    EXPECT_NE(find_splice_stream("one"), nullptr) << "the id stays taken";
    FrameCallback other = some_callback();
    EXPECT_EQ(start_splice_stream("one", other), -2);
    EXPECT_EQ(stream.stop(), 0);
    EXPECT_EQ(printed.error(), "[ERROR][one] Made by a test.\n[DEBUG][one] details of it\n");
    const SpliceStream again("one", some_callback());
    EXPECT_EQ(again.start_result(), 0);
    EXPECT_EQ(again.push(kKeyUnit), 0);
}

TEST(SpliceMessages, EndOfStreamIsPrintedAndEndsTheStream)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    const StandardStreams printed;
    FrameLog log;
    const SpliceStream stream("one", log.callback());
    for (const AccessUnit& unit : units)
        ASSERT_EQ(stream.push(unit), 0);
    gst_app_src_end_of_stream(GST_APP_SRC(appsrc_of(*find_splice_stream("one")).get()));
    EXPECT_TRUE(wait_for_code(stream, -5));
    EXPECT_EQ(stream.stop(), 0);
    EXPECT_NE(printed.out().find("[EOS][one]\n"), std::string::npos) << printed.out();
    EXPECT_EQ(log.size(), units.size());
    const SpliceStream again("one", some_callback());
    EXPECT_EQ(again.push(nal_unit(1)), -6);
}

TEST(SpliceMessages, EndedStreamHasNoPipelineAndKeepsItsContext)
{
    const SpliceStream stream("one", some_callback());
    const auto context = find_splice_stream("one");
    post_error("one");
    ASSERT_TRUE(wait_for_code(stream, -5));
    EXPECT_TRUE(wait_until([&] {
        const std::lock_guard lock(context->mutex);
        return !context->pipeline && !context->appsrc && !context->appsink && !context->loop;
    }));
    EXPECT_FALSE(context->running);
    EXPECT_EQ(context->startup_result, 0) << "the first result stays";
}

TEST(SpliceMainContext, EndsWhileTheApplicationHoldsTheDefaultContext)
{
    ASSERT_TRUE(g_main_context_acquire(nullptr));
    const SpliceStream one("one", some_callback());
    const SpliceStream two("two", some_callback());
    ASSERT_EQ(one.start_result(), 0);
    ASSERT_EQ(two.start_result(), 0);
    post_error("one");
    EXPECT_TRUE(wait_for_code(one, -5));
    EXPECT_EQ(two.push(nal_unit(1)), -6) << "one stream's error is not the other's";
    EXPECT_EQ(two.stop(), 0);
    g_main_context_release(nullptr);
}

TEST(SpliceEntryPoints, ConfiguredStreamStartsPlaysAndShutsDown)
{
    TemporaryFolder folder;
    const auto units = make_access_units({}, folder.file("clip.mp4"));
    const ConfigFile file(one_stream("one", R"("inputType": "splice")"));
    FrameLog log;
    FrameCallback callback = log.callback();
    ASSERT_EQ(start_stream("one", callback), 0);
    for (const AccessUnit& unit : units)
        EXPECT_EQ(decode_put_frame_splice(unit.bytes.data(), unit.bytes.size(), "one", unit.pts, false), 0);
    EXPECT_TRUE(log.wait_for(units.size()));
    FrameCallback second = some_callback();
    EXPECT_EQ(start_stream("one", second), -2) << "its codes come through";
    gstreamer_pipeline_shutdown("one");
    EXPECT_EQ(stop_splice_stream("one"), -3);
}

TEST(SpliceEntryPoints, DescribedStreamStartsWithoutAnEntry)
{
    const ConfigFile file(R"({"streams": []})");
    StreamIns ins;
    ins.streamsId = "one";
    ins.inputType = "splice";
    ins.saveMp4 = true; // comes second
    FrameCallback callback = some_callback();
    ASSERT_EQ(start(ins, callback), 0);
    EXPECT_EQ(decode_put_frame_splice(kKeyUnit.data(), kKeyUnit.size(), "one", 0, false), 0);
    gstreamer_pipeline_shutdown("one");
    EXPECT_NE(find_splice_stream("one"), nullptr) << "a shutdown finds it by its entry only";
    gstreamer_pipeline_shutdown("all_stream");
    EXPECT_NE(find_splice_stream("one"), nullptr);
    EXPECT_EQ(stop_splice_stream("one"), 0);
}

TEST(SpliceEntryPoints, SpliceComesBeforeAudioAndRollingSave)
{
    const ConfigFile file(
        one_stream("one", R"("inputType": "splice", "audio": true, "rollingsave": true, "networkPush": true)"));
    FrameCallback callback = some_callback();
    EXPECT_EQ(start_stream("one", callback), 0);
    EXPECT_EQ(stop_splice_stream("one"), 0);
}

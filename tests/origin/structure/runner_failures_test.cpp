// What a runner says of a pipeline that cannot be made, and of each link of its chain that fails.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "test_platform.h"

#include <gtest/gtest.h>

#include <functional>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

GstElement* bin_of(const char* factory, const char* pad)
{
    GstElement* bin = gst_bin_new(nullptr);
    GstElement* element = gst_element_factory_make(factory, nullptr);
    gst_bin_add(GST_BIN(bin), element);
    const PadPtr target(gst_element_get_static_pad(element, pad));
    gst_element_add_pad(bin, gst_ghost_pad_new(pad, target.get()));
    return bin;
}

class SourceInput : public StreamInput {
public:
    SourceInput() : StreamInput("", "cam") {}
    GstElement* build() override { return bin_of("videotestsrc", "src"); }
};

class MissingInput : public StreamInput {
public:
    MissingInput() : StreamInput("", "cam") {}
    GstElement* build() override { return nullptr; }
};

class SinkOutput : public StreamOutput {
public:
    GstElement* build() override { return bin_of("fakesink", "sink"); }
};

// ---- A transform that is made as the test says

void give_pad(GstElement* element, const char* name, GstPadDirection direction)
{
    gst_element_add_pad(element, gst_pad_new(name, direction));
}

void give_both_pads(GstElement* element)
{
    give_pad(element, "sink", GST_PAD_SINK);
    give_pad(element, "src", GST_PAD_SRC);
}

int made_transforms = 0;
/// Called for every new transform with its number, from 1.
std::function<void(GstElement*, int)> on_new_transform;

GType transform_type()
{
    static const GType type = g_type_register_static_simple(
        GST_TYPE_ELEMENT, "VelTestTransform", sizeof(GstElementClass),
        [](gpointer klass, gpointer) {
            gst_element_class_set_static_metadata(GST_ELEMENT_CLASS(klass), "Transform", "Filter", "Does nothing",
                                                  "velstream-gst");
        },
        sizeof(GstElement),
        [](GTypeInstance* instance, gpointer) { on_new_transform(GST_ELEMENT(instance), ++made_transforms); },
        GTypeFlags{});
    return type;
}

class RunnerFailures : public WithGStreamer {
protected:
    static int run(StreamInput& input, StreamOutput& output)
    {
        std::function<int8_t(const Image&)> callback;
        return startStream(&input, &output, "cam", callback);
    }

    void expect_failed_link(const char* generic)
    {
        const char* ub2404 = "E start_ub2404: Failed to link elements.";
        const char* v4l2 = "E Failed to link elements "
                           "input/qtivtransformInput/capsfilter1/qtivtransformOutput/capsfilter2/output in the "
                           "pipeline.";
        ASSERT_EQ(run(input_, output_), -1);
        EXPECT_EQ(log_lines().back(), on_platform(ub2404, v4l2, generic, generic));
        EXPECT_EQ(pipeline_map.at("cam"), nullptr);
    }

    const ConfigFile config_{complete_stream("cam", "H264")};
    SourceInput input_;
    SinkOutput output_;
};

TEST_F(RunnerFailures, TransformWithoutAnInputIsNotLinkedToTheInput)
{
    on_new_transform = [](GstElement* element, int number) {
        if (number > 1) return give_both_pads(element);
        give_pad(element, "src", GST_PAD_SRC);
    };
    const ElementStandIn transform("qtivtransform", transform_type());
    expect_failed_link("E Failed to link elements input with qtivtransformInput in the pipeline.");
}

TEST_F(RunnerFailures, TransformWithoutAnOutputIsNotLinkedToTheFilter)
{
    on_new_transform = [](GstElement* element, int number) {
        if (number > 1) return give_both_pads(element);
        give_pad(element, "sink", GST_PAD_SINK);
    };
    const ElementStandIn transform("qtivtransform", transform_type());
    expect_failed_link("E Failed to link elements qtivtransformInput with capsfilter in the pipeline.");
}

TEST_F(RunnerFailures, SecondTransformWithoutAnInputIsNotLinkedToTheFilter)
{
    on_new_transform = [](GstElement* element, int number) {
        if (number == 1) return give_both_pads(element);
        give_pad(element, "src", GST_PAD_SRC);
    };
    const ElementStandIn transform("qtivtransform", transform_type());
    expect_failed_link("E Failed to link elements capsfilter with qtivtransformOutput in the pipeline.");
}

TEST_F(RunnerFailures, SecondTransformWithoutAnOutputIsNotLinkedToTheOutput)
{
    on_new_transform = [](GstElement* element, int number) {
        if (number == 1) return give_both_pads(element);
        give_pad(element, "sink", GST_PAD_SINK);
    };
    const ElementStandIn transform("qtivtransform", transform_type());
    expect_failed_link("E Failed to link elements qtivtransformOutput with output in the pipeline.");
}

TEST_F(RunnerFailures, SecondTransformThatCannotBeMadeIsAFailure)
{
    on_new_transform = [](GstElement* element, int) {
        give_both_pads(element);
        GstPluginFeature* feature = gst_registry_lookup_feature(gst_registry_get(), "qtivtransform");
        gst_registry_remove_feature(gst_registry_get(), feature);
        gst_object_unref(feature);
    };
    const ElementStandIn transform("qtivtransform", transform_type());
    if (test_platform() != "ub2404") {
        expect_failed_link("E Failed to link elements capsfilter with qtivtransformOutput in the pipeline.");
        return;
    }
    // Without an input too: what cannot be made is said before what cannot be linked.
    MissingInput input;
    ASSERT_EQ(run(input, output_), -1);
    EXPECT_EQ(log_lines().back(), "E start_ub2404: Failed to create output conversion elements.");
}

// ---- No pipeline

TEST_F(RunnerFailures, PipelineThatCannotBeMadeIsLoggedAndNotRegistered)
{
    const WithoutElement without("pipeline");
    EXPECT_EQ(run(input_, output_), -1);
    EXPECT_EQ(log_lines(), (Lines{"E pipeline couldn't be created due to pipeline is nullptr.\n"}));
    EXPECT_TRUE(pipeline_map.empty());
}

TEST_F(RunnerFailures, RunnerWithoutAPipelineFailsAndReleasesItsElements)
{
    for (const auto runner : {start, start_6490_ql, start_ub2404}) {
        clear_log();
        PiplineData data;
        data.streamId = "cam";
        const ElementPtr input = share(gst_bin_new("input"));
        const ElementPtr output = share(gst_bin_new("output"));
        EXPECT_EQ(runner(&data, input.get(), output.get()), -1);
        EXPECT_EQ(log_lines(), (Lines{"E pipeline couldn't be created due to pipeline is nullptr."}));
        EXPECT_EQ(reference_count(input.get()), 1);
        EXPECT_EQ(reference_count(output.get()), 1);
    }
}

} // namespace

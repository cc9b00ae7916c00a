// What a stream used is released when its call returns.
#include "LiveInput.h"
#include "StreamBuild.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace velstream::testing {

namespace {

/// Objects of a type that are alive, as GStreamer's leak tracer sees them.
int live_objects(const std::string& type)
{
    int found = 0;
    GList* tracers = gst_tracing_get_active_tracers();
    for (GList* item = tracers; item; item = item->next) {
        GstStructure* info = nullptr;
        g_signal_emit_by_name(item->data, "get-live-objects", &info);
        if (!info) continue;
        const GValue* list = gst_structure_get_value(info, "live-objects-list");
        for (guint i = 0; i < gst_value_list_get_size(list); ++i) {
            const GstStructure* object = gst_value_get_structure(gst_value_list_get_value(list, i));
            GType of = G_TYPE_INVALID;
            const GValue* value = gst_structure_get_value(object, "object");
            if (value) of = G_VALUE_TYPE(value);
            if (of != G_TYPE_INVALID && g_type_name(of) == type) ++found;
        }
        gst_structure_free(info);
    }
    g_list_free_full(tracers, gst_object_unref);
    return found;
}

class Release : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        setenv("GST_TRACERS", "leaks", 1);
        gst_init(nullptr, nullptr);
    }
};

} // namespace

TEST_F(Release, TheTracerSeesAPipelineThatIsKept)
{
    GstElement* kept = gst_pipeline_new("kept");
    EXPECT_EQ(live_objects("GstPipeline"), 1);
    gst_object_unref(kept);
    EXPECT_EQ(live_objects("GstPipeline"), 0);
}

TEST_F(Release, NothingOfTwentyStoppedStreamsIsLeft)
{
    for (int round = 0; round < 20; ++round) {
        StreamCall call(live_stream("released", {.frames = round % 2 ? -1 : 3}));
        // On "ub2404" the first stop ends the later streams early.
        call.wait_for_frames(2);
        ASSERT_TRUE(stop_ends_call(call, "released"));
    }
    for (const char* type : {"GstPipeline", "GstBin", "GstBus", "GstQueue", "GstCapsFilter", "GstFakeSink", "GstVideoTestSrc"})
        EXPECT_EQ(live_objects(type), 0) << type;
}

} // namespace velstream::testing

// The platform's "waylandsink": which process has it, what it takes, and what a headless compositor shows.
#include "compositor.h"
#include "gst_handles.h"

#include <gst/check/gstharness.h>
#include <gst/video/video.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

using namespace velstream::handles;

/// Makes an element; empty where its factory is missing.
ElementPtr make(const char* factory)
{
    GstElement* element = gst_element_factory_make(factory, nullptr);
    return ElementPtr(element ? GST_ELEMENT(gst_object_ref_sink(element)) : nullptr);
}

bool has_property(const ElementPtr& element, const char* name)
{
    return g_object_class_find_property(G_OBJECT_GET_CLASS(element.get()), name) != nullptr;
}

/// What a tool does that asks for the software platform.
void ask_for_software_platform()
{
    gst_init(nullptr, nullptr);
    const PluginPtr plugin(gst_plugin_load_by_name("velsoftware"));
    ASSERT_TRUE(plugin);
}

TEST(WaylandSink, AskingProcessGetsPlatformProperties)
{
    ask_for_software_platform();
    for (int i = 0; i < 2; ++i) {
        const ElementPtr sink = make("waylandsink");
        ASSERT_TRUE(sink);
        g_object_set(sink.get(), "x", 10, "y", 20, "width", 640, "height", 360, "sync", FALSE, "qos", FALSE, "display",
                     "wayland-9", nullptr);
        gint values[4] = {};
        gboolean is_synced = TRUE;
        gboolean has_qos = TRUE;
        gchar* display = nullptr;
        g_object_get(sink.get(), "x", &values[0], "y", &values[1], "width", &values[2], "height", &values[3], "sync",
                     &is_synced, "qos", &has_qos, "display", &display, nullptr);
        EXPECT_EQ(std::vector<gint>(values, values + 4), (std::vector<gint>{10, 20, 640, 360}));
        EXPECT_FALSE(is_synced);
        EXPECT_TRUE(has_property(sink, "fullscreen"));
        EXPECT_FALSE(has_qos);
        EXPECT_STREQ(display, "wayland-9");
        g_free(display);
    }
}

TEST(WaylandSink, MakingAnElementOfThePlatformIsAskingToo)
{
    gst_init(nullptr, nullptr);
    ASSERT_TRUE(make("v4l2h264dec"));
    const ElementPtr sink = make("waylandsink");
    ASSERT_TRUE(sink);
    EXPECT_TRUE(has_property(sink, "width"));
}

TEST(WaylandSink, OtherProcessKeepsTheStockSink)
{
    gst_init(nullptr, nullptr);
    const ElementPtr sink = make("waylandsink");
    ASSERT_TRUE(sink);
    EXPECT_FALSE(has_property(sink, "width"));
    EXPECT_STREQ(G_OBJECT_TYPE_NAME(sink.get()), "GstWaylandSink");
}

/// Runs another test of this file in a process of its own.
bool passes_alone(const char* test)
{
    const std::string command =
        "'" + fs::read_symlink("/proc/self/exe").string() + "' --gtest_filter=WaylandSink." + test + " >/dev/null";
    return std::system(command.c_str()) == 0;
}

// The scan runs the plug-in's entry too. Nothing of it may reach the cache that other processes read.
TEST(WaylandSink, ScanInTheAskingProcessLeavesOthersTheStockSink)
{
    const std::string cache =
        (fs::temp_directory_path() / ("waylandsink-" + std::to_string(getpid()) + ".bin")).string();
    setenv("GST_REGISTRY", cache.c_str(), 1);
    setenv("GST_REGISTRY_FORK", "no", 1);
    EXPECT_TRUE(passes_alone("MakingAnElementOfThePlatformIsAskingToo")); // scans and writes the cache
    EXPECT_TRUE(fs::exists(cache));
    EXPECT_TRUE(passes_alone("OtherProcessKeepsTheStockSink"));
    EXPECT_TRUE(passes_alone("AskingProcessGetsPlatformProperties"));
    fs::remove(cache);
}

TEST(WaylandSink, StockSinkInUseBeforeIsReplacedFromThenOn)
{
    gst_init(nullptr, nullptr);
    const ElementPtr before = make("waylandsink");
    ASSERT_TRUE(before);
    EXPECT_FALSE(has_property(before, "width"));
    ask_for_software_platform();
    const ElementPtr after = make("waylandsink");
    ASSERT_TRUE(after);
    EXPECT_TRUE(has_property(after, "width"));
}

TEST(WaylandSink, AbsentWhereTheStockSinkIs)
{
    gst_init(nullptr, nullptr);
    GstRegistry* registry = gst_registry_get();
    GstPluginFeature* stock = gst_registry_lookup_feature(registry, "waylandsink");
    ASSERT_TRUE(stock);
    gst_registry_remove_feature(registry, stock);
    gst_object_unref(stock);
    ask_for_software_platform();
    EXPECT_FALSE(make("waylandsink"));
}

TEST(WaylandSink, ThreadsThatMakeTheFirstPipelinesAllGetThePlatforms)
{
    ask_for_software_platform();
    std::vector<std::thread> threads;
    std::atomic<int> platform_sinks = 0;
    for (const char* before : {"v4l2h264dec", "v4l2h264enc", "qtivtransform", "v4l2h265dec"}) {
        for (int i = 0; i < 4; ++i) {
            threads.emplace_back([&, before] {
                const ElementPtr other = make(before);
                const ElementPtr sink = make("waylandsink");
                if (other && sink && has_property(sink, "width")) ++platform_sinks;
            });
        }
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(platform_sinks, 16);
}

/// The first child's factory type; 0: there is none.
GType inner_type(const ElementPtr& sink)
{
    return GST_IS_BIN(sink.get()) && GST_BIN_CHILDREN(sink.get()) ? G_OBJECT_TYPE(GST_BIN_CHILDREN(sink.get())->data)
                                                                  : 0;
}

gboolean register_other_sink(GstPlugin* plugin)
{
    return gst_element_register(plugin, "waylandsink", GST_RANK_PRIMARY, G_OBJECT_TYPE(make("fakesink").get()));
}

TEST(WaylandSink, SinkOfAPluginThatComesLaterIsTheInnerOneFromThenOn)
{
    ask_for_software_platform();
    ASSERT_TRUE(make("waylandsink"));
    ASSERT_TRUE(gst_plugin_register_static(GST_VERSION_MAJOR, GST_VERSION_MINOR, "othersink", "Another sink",
                                           register_other_sink, "1.0", "LGPL", "test", "test", "test"));
    for (int i = 0; i < 2; ++i) {
        const ElementPtr sink = make("waylandsink");
        ASSERT_TRUE(sink);
        EXPECT_TRUE(has_property(sink, "width"));
        EXPECT_EQ(inner_type(sink), G_OBJECT_TYPE(make("fakesink").get()));
    }
}

TEST(WaylandSink, GbmAndPlainCapsLink)
{
    ask_for_software_platform();
    const ElementPtr sink = make("waylandsink");
    ASSERT_TRUE(sink);
    const PadPtr pad(gst_element_get_static_pad(sink.get(), "sink"));
    for (const char* text : {"video/x-raw(memory:GBM),format=NV12,width=1280,height=720,framerate=25/1",
                             "video/x-raw,format=NV12,width=1280,height=720,framerate=25/1"}) {
        const CapsPtr caps(gst_caps_from_string(text));
        EXPECT_TRUE(gst_pad_query_accept_caps(pad.get(), caps.get())) << text;
        const CapsPtr common(gst_pad_query_caps(pad.get(), caps.get()));
        EXPECT_TRUE(gst_caps_can_intersect(common.get(), caps.get())) << text;
    }
    const ElementPtr filter = make("capsfilter");
    const ElementPtr bin(GST_ELEMENT(gst_object_ref_sink(gst_pipeline_new(nullptr))));
    const CapsPtr gbm(gst_caps_from_string("video/x-raw(memory:GBM),format=NV12"));
    g_object_set(filter.get(), "caps", gbm.get(), nullptr);
    gst_bin_add_many(GST_BIN(bin.get()), filter.get(), sink.get(), nullptr);
    EXPECT_TRUE(gst_element_link(filter.get(), sink.get()));
}

TEST(WaylandSink, NoCompositorIsAnErrorNotACrash)
{
    ask_for_software_platform();
    unsetenv("WAYLAND_DISPLAY");
    setenv("XDG_RUNTIME_DIR", "/nonexistent", 1);
    const ElementPtr sink = make("waylandsink");
    ASSERT_TRUE(sink);
    EXPECT_EQ(gst_element_set_state(sink.get(), GST_STATE_PAUSED), GST_STATE_CHANGE_FAILURE);
    gst_element_set_state(sink.get(), GST_STATE_NULL);
}

// ---- On a compositor
// ---------------------------------------------------------------------------------------------------

template <typename Condition>
bool wait_until(Condition condition, int seconds)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(20)); // between two looks, not instead of one
    }
    return true;
}

/// With a screen of 1024 x 640.
class WaylandScreen : public testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(screen_.is_ready()); }

    /// The area that a frame of one green covers on the screen while `sink` shows it: width and height, 0 and 0 for
    /// none.
    std::pair<int, int> shown_area(const std::string& sink, int new_width = 0, int new_height = 0)
    {
        GError* error = nullptr;
        const ElementPtr pipeline(gst_parse_launch(
            ("videotestsrc pattern=green is-live=true ! video/x-raw,width=640,height=360,framerate=25/1 ! "
             "v4l2h264enc ! v4l2h264dec ! video/x-raw(memory:GBM),format=NV12 ! " +
             sink + " name=display")
                .c_str(),
            &error));
        if (error) {
            ADD_FAILURE() << error->message;
            g_clear_error(&error);
            return {0, 0};
        }
        const ElementPtr display(gst_bin_get_by_name(GST_BIN(pipeline.get()), "display"));
        const PadPtr pad(gst_element_get_static_pad(display.get(), "sink"));
        std::atomic<int> frames = 0;
        gst_pad_add_probe(
            pad.get(), GST_PAD_PROBE_TYPE_BUFFER,
            [](GstPad*, GstPadProbeInfo*, gpointer count) {
                ++*static_cast<std::atomic<int>*>(count);
                return GST_PAD_PROBE_OK;
            },
            &frames, nullptr);
        EXPECT_NE(gst_element_set_state(pipeline.get(), GST_STATE_PLAYING), GST_STATE_CHANGE_FAILURE);
        if (new_width > 0) {
            EXPECT_TRUE(wait_until([&] { return frames >= 5; }, 60));
            g_object_set(display.get(), "width", new_width, "height", new_height, nullptr);
        }
        const int enough = frames + 5;
        std::pair<int, int> area{0, 0};
        std::pair<int, int> last{-1, -1};
        // The compositor fades a new window in: the picture counts once two looks at it agree.
        EXPECT_TRUE(wait_until(
            [&] {
                if (frames < enough) return false;
                last = area;
                area = green_area(screen_.take_picture());
                return area.first > 0 && area == last;
            },
            60));
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        return area;
    }

private:
    static SamplePtr read_picture(const std::string& path)
    {
        const ElementPtr pipeline(gst_parse_launch(
            ("filesrc location=" + path + " ! pngdec ! videoconvert ! video/x-raw,format=RGB ! fakesink name=out")
                .c_str(),
            nullptr));
        gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
        const BusPtr bus(gst_element_get_bus(pipeline.get()));
        const MessagePtr message(gst_bus_timed_pop_filtered(
            bus.get(), 20 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_EOS | GST_MESSAGE_ERROR)));
        const ElementPtr out(gst_bin_get_by_name(GST_BIN(pipeline.get()), "out"));
        GstSample* sample = nullptr;
        g_object_get(out.get(), "last-sample", &sample, nullptr);
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
        return SamplePtr(sample);
    }

    static std::pair<int, int> green_area(const std::string& path)
    {
        const SamplePtr sample = path.empty() ? nullptr : read_picture(path);
        GstVideoInfo info;
        GstVideoFrame frame;
        if (!sample || !gst_video_info_from_caps(&info, gst_sample_get_caps(sample.get())) ||
            !gst_video_frame_map(&frame, &info, gst_sample_get_buffer(sample.get()), GST_MAP_READ))
            return {0, 0};
        int left = info.width;
        int right = -1;
        int top = info.height;
        int bottom = -1;
        for (int y = 0; y < info.height; ++y) {
            const auto* row = static_cast<const guint8*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0)) +
                              y * GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
            for (int x = 0; x < info.width; ++x) {
                const guint8* pixel = row + 3 * x;
                if (pixel[1] < 200 || pixel[0] > 60 || pixel[2] > 60) continue;
                left = std::min(left, x);
                right = std::max(right, x);
                top = std::min(top, y);
                bottom = std::max(bottom, y);
            }
        }
        gst_video_frame_unmap(&frame);
        return right < 0 ? std::pair{0, 0} : std::pair{right - left + 1, bottom - top + 1};
    }

    peers::Compositor screen_{1024, 640};
};

TEST_F(WaylandScreen, WidthAndHeightAreTheWindows)
{
    ask_for_software_platform();
    EXPECT_EQ(shown_area("waylandsink x=0 y=0 width=320 height=180"), (std::pair{320, 180}));
}

TEST_F(WaylandScreen, NewSizeIsTakenWhilePlaying)
{
    ask_for_software_platform();
    EXPECT_EQ(shown_area("waylandsink", 480, 270), (std::pair{480, 270}));
}

TEST_F(WaylandScreen, ZeroWidthAndHeightAreTheVideos)
{
    ask_for_software_platform();
    EXPECT_EQ(shown_area("waylandsink x=0 y=0 width=0 height=0"), (std::pair{640, 360}));
}

} // namespace

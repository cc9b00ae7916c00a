// From video to boxes on the video: the whole branch, with a model that finds a bright square.
#include "tensors.h"

#include <gst/app/gstappsink.h>
#include <gst/app/gstappsrc.h>

#include <algorithm>
#include <array>
#include <atomic>

namespace {

using namespace velstream::test;

class Detection : public ModelTest {
protected:
    std::string branch(ModelOutput output, const char* module) const
    {
        SquareDetector detector;
        detector.output = output;
        return "qtimlvconverter name=qmlconvert_1 ! qtimlqnn name=qtimlqnn_1 model=" + model(detector) +
               " backend=/opt/lib/libBackend.so ! qtimlvdetection threshold=75 results=10 module=" + module +
               " labels=" + file("labels.txt", "square\nsquare\n");
    }
};

constexpr int kWidth = 640, kHeight = 360, kSide = 48;
const std::string kVideo = video_caps(size_caps("NV12", kWidth, kHeight));

struct Place {
    int x, y;
};

constexpr std::array<Place, 10> kPlaces{
    {{0, 20}, {592, 20}, {592, 312}, {0, 312}, {296, 156}, {101, 77}, {333, 201}, {500, 99}, {47, 250}, {412, 33}}};

/// A grey picture with a white square.
BufferPtr square_frame(const Place& place, GstClockTime time)
{
    BufferPtr buffer = make_frame(kVideo);
    {
        const Frame frame(buffer.get(), kVideo, GST_MAP_READWRITE);
        for (int c = 0; c < 3; ++c)
            for (int y = 0; y < frame.height(c); ++y)
                for (int x = 0; x < frame.width(c); ++x)
                    frame.at(c, x, y) = c == 0 ? 30 : 128;
        for (int y = place.y; y < place.y + kSide; ++y)
            for (int x = place.x; x < place.x + kSide; ++x)
                frame.at(0, x, y) = 235;
    }
    GST_BUFFER_PTS(buffer.get()) = time;
    GST_BUFFER_DURATION(buffer.get()) = 40 * GST_MSECOND;
    return buffer;
}

bool is_line(const Frame& frame, int x, int y)
{
    const int red = frame.at(0, x, y);
    const int green = frame.at(1, x, y);
    const int blue = frame.at(2, x, y);
    return std::max({red, green, blue}) - std::min({red, green, blue}) > 150;
}

/// Outwards from a pixel inside of the box to its line, which is two pixels wide: left, top, right, bottom.
std::array<int, 4> box_around(const Frame& frame, int x, int y)
{
    const auto reach = [&](int step_x, int step_y) {
        int length = 0;
        for (int i = x, k = y; i >= 0 && i < frame.width() && k >= 0 && k < frame.height() && !is_line(frame, i, k);
             i += step_x, k += step_y)
            ++length;
        return length;
    };
    return {x - reach(-1, 0) - 1, y - reach(0, -1) - 1, x + reach(1, 0) + 2, y + reach(0, 1) + 2};
}

ElementPtr element_in(const ElementPtr& pipeline, const char* name)
{
    return ElementPtr(gst_bin_get_by_name(GST_BIN(pipeline.get()), name));
}

SamplePtr pull(const ElementPtr& sink)
{
    return SamplePtr(gst_app_sink_try_pull_sample(GST_APP_SINK(sink.get()), 60 * GST_SECOND));
}

/// For a look at what was drawn.
void save(GstSample* sample, const std::string& path)
{
    const CapsPtr png(gst_caps_new_empty_simple("image/png"));
    const SamplePtr picture(gst_video_convert_sample(sample, png.get(), 60 * GST_SECOND, nullptr));
    if (!picture) return;
    const auto bytes = numbers_of<char>(gst_sample_get_buffer(picture.get()));
    write_file(path, {bytes.begin(), bytes.end()});
}

TEST_F(Detection, TheDrawnBoxFollowsTheSquare)
{
    const std::pair<ModelOutput, const char*> modules[] = {
        {ModelOutput::yolov8, "yolov8"}, {ModelOutput::yolov5, "yolov5"}, {ModelOutput::ssd, "ssd"}};
    for (const auto& [output, module] : modules) {
        const std::string canvas = size_caps("RGB", kWidth, kHeight);
        const ElementPtr pipeline(gst_parse_launch(
            ("appsrc name=in format=time caps=\"" + kVideo + "\" ! tee name=split split. ! queue ! " +
             "qtivcomposer name=mixer1 ! video/x-raw," + canvas + " ! appsink name=out sync=false split. ! queue ! " +
             branch(output, module) + " ! video/x-raw(memory:GBM) ! capsfilter name=ml_capsfilter ! mixer1. ")
                .c_str(),
            nullptr));
        ASSERT_TRUE(pipeline);
        const ElementPtr in = element_in(pipeline, "in");
        const ElementPtr out = element_in(pipeline, "out");
        gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
        for (std::size_t i = 0; i < kPlaces.size(); ++i)
            gst_app_src_push_buffer(GST_APP_SRC(in.get()), square_frame(kPlaces[i], i * 40 * GST_MSECOND).release());
        gst_app_src_end_of_stream(GST_APP_SRC(in.get()));
        for (std::size_t i = 0; i < kPlaces.size(); ++i) {
            const SamplePtr sample = pull(out);
            ASSERT_TRUE(sample) << module << i;
            EXPECT_EQ(GST_BUFFER_PTS(gst_sample_get_buffer(sample.get())), i * 40 * GST_MSECOND);
            const Frame frame(gst_sample_get_buffer(sample.get()), video_caps(canvas));
            const auto box = box_around(frame, kPlaces[i].x + kSide / 2, kPlaces[i].y + kSide / 2);
            EXPECT_NEAR(box[0], kPlaces[i].x, 2) << module << i;
            EXPECT_NEAR(box[1], kPlaces[i].y, 2) << module << i;
            EXPECT_NEAR(box[2], kPlaces[i].x + kSide, 2) << module << i;
            EXPECT_NEAR(box[3], kPlaces[i].y + kSide, 2) << module << i;
            if (const char* folder = std::getenv("VELSTREAM_PICTURES"))
                save(sample.get(), std::string(folder) + "/" + module + std::to_string(i) + ".png");
        }
        gst_element_set_state(pipeline.get(), GST_STATE_NULL);
    }
}

/// Counts what passes a pad.
struct Counter {
    std::atomic<int> buffers{0};

    static GstPadProbeReturn count(GstPad*, GstPadProbeInfo*, gpointer data)
    {
        ++static_cast<Counter*>(data)->buffers;
        return GST_PAD_PROBE_OK;
    }
    void watch(const ElementPtr& element)
    {
        const PadPtr pad(gst_element_get_static_pad(element.get(), "sink"));
        gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, count, this, nullptr);
    }
};

TEST_F(Detection, ASlowModelLeavesFramesOutInItsOwnBranchOnly)
{
    const ElementPtr pipeline(gst_parse_launch(
        ("videotestsrc is-live=true pattern=black ! " + kVideo +
         " ! tee name=split split. ! queue max-size-buffers=1 ! fakesink name=video sync=false split. ! "
         "queue max-size-buffers=1 ! " +
         branch(ModelOutput::yolov8, "yolov8") + " ! identity sleep-time=300000 ! appsink name=masks sync=false")
            .c_str(),
        nullptr));
    ASSERT_TRUE(pipeline);
    Counter video;
    video.watch(element_in(pipeline, "video"));
    const ElementPtr masks = element_in(pipeline, "masks");
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    GstClockTime last = 0;
    for (int i = 0; i < 6; ++i) {
        const SamplePtr sample = pull(masks);
        ASSERT_TRUE(sample);
        const GstClockTime time = GST_BUFFER_PTS(gst_sample_get_buffer(sample.get()));
        EXPECT_TRUE(i == 0 || time > last) << i;
        last = time;
    }
    // In the time of six masks more than thirty frames are due.
    EXPECT_GT(video.buffers.load(), 18);
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
}

TEST_F(Detection, ALiveBoxStaysUntilTheNextMaskComes)
{
    const std::string canvas = size_caps("RGB", kWidth, kHeight);
    const ElementPtr pipeline(gst_parse_launch(
        ("qtivcomposer name=scene sink_1::position=<300,120> sink_1::dimensions=<48,48> ! " + kVideo +
         " ! tee name=split split. ! queue ! qtivcomposer name=mixer1 ! video/x-raw," + canvas +
         " ! appsink name=out sync=false split. ! queue ! " + branch(ModelOutput::yolov8, "yolov8") +
         " ! identity sleep-time=300000 ! mixer1. videotestsrc is-live=true pattern=black ! " + kVideo +
         " ! scene. videotestsrc is-live=true pattern=white ! " + video_caps(size_caps("NV12", 48, 48)) + " ! scene.")
            .c_str(),
        nullptr));
    ASSERT_TRUE(pipeline);
    const ElementPtr out = element_in(pipeline, "out");
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    const auto has_box = [&] {
        const SamplePtr sample = pull(out);
        if (!sample) return false;
        const Frame frame(gst_sample_get_buffer(sample.get()), video_caps(canvas));
        return box_around(frame, 324, 144) == std::array{300, 120, 348, 168};
    };
    int first = 0;
    while (first < 1000 && !has_box())
        ++first;
    ASSERT_LT(first, 1000);
    for (int i = 0; i < 20; ++i)
        EXPECT_TRUE(has_box()) << i;
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
}

TEST_F(Detection, AFileThatIsNotLiveLosesNoFrame)
{
    const ElementPtr pipeline(gst_parse_launch(("videotestsrc num-buffers=25 pattern=black ! " + kVideo + " ! " +
                                                branch(ModelOutput::yolov8, "yolov8") +
                                                " ! identity sleep-time=5000 ! appsink name=masks sync=false")
                                                   .c_str(),
                                               nullptr));
    ASSERT_TRUE(pipeline);
    const ElementPtr masks = element_in(pipeline, "masks");
    gst_element_set_state(pipeline.get(), GST_STATE_PLAYING);
    for (guint i = 0; i < 25; ++i) {
        const SamplePtr sample = pull(masks);
        ASSERT_TRUE(sample) << i;
        EXPECT_EQ(GST_BUFFER_PTS(gst_sample_get_buffer(sample.get())), i * 40 * GST_MSECOND);
    }
    EXPECT_FALSE(pull(masks));
    gst_element_set_state(pipeline.get(), GST_STATE_NULL);
}

} // namespace

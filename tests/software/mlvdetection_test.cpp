#include "tensors.h"

#include <array>

namespace {

using namespace velstream::test;

class MlVDetection : public ModelTest {};

using Area = std::array<int, 4>; ///< left, top, right, bottom

constexpr int kWidth = 320, kHeight = 240;
const std::string kMask = video_caps(size_caps("BGRA", kWidth, kHeight));

/// Tensors that show a picture of 320x240 in a tensor of 160x120, unless said otherwise.
std::string tensor_caps(const std::string& dimensions,
                        const std::string& view = "picture-size=(int)<320,240>,picture-source=(int)<0,0,320,240>,"
                                                  "picture-tensor=(int)<160,120>,picture-place=(int)<0,0,160,120>")
{
    return "neural-network/tensors,framerate=25/1,type=(string)FLOAT32,dimensions=(int)<" + dimensions + ">" +
           (view.empty() ? "" : "," + view);
}

/// The smallest rectangle around every pixel that is not transparent; right 0: there is none. Counts from `first_row`.
Area drawn_area(const BufferPtr& mask, const std::string& caps, int first_row = 0)
{
    const Frame frame(mask.get(), caps);
    Area area{frame.width(), frame.height(), 0, 0};
    for (int y = first_row; y < frame.height(); ++y)
        for (int x = 0; x < frame.width(); ++x) {
            if (frame.at(3, x, y) == 0) continue;
            area = {std::min(area[0], x), std::min(area[1], y), std::max(area[2], x + 1), std::max(area[3], y + 1)};
        }
    return area;
}

/// The frame of the box around x, y: from there outwards to the line, two pixels wide in a picture of this height.
Area box_around(const BufferPtr& mask, int x, int y)
{
    const Frame frame(mask.get(), kMask);
    const auto reach = [&](int step_x, int step_y) {
        int length = 0;
        for (int i = x, k = y; i >= 0 && i < kWidth && k >= 0 && k < kHeight && frame.at(3, i, k) == 0;
             i += step_x, k += step_y)
            ++length;
        return length;
    };
    return {x - reach(-1, 0) - 1, y - reach(0, -1) - 1, x + reach(1, 0) + 2, y + reach(0, 1) + 2};
}

BufferPtr detect(const std::string& settings, const std::string& dimensions,
                 const std::vector<std::vector<float>>& tensors)
{
    const std::string launch = "qtimlvdetection " + settings;
    const HarnessPtr harness = make_harness(launch.c_str(), tensor_caps(dimensions), kMask);
    return push_and_pull(harness, make_tensors(tensors));
}

struct LayoutRow {
    const char* module;
    std::string dimensions;
    std::vector<std::vector<float>> tensors;
};

/// One box from 40,30 to 80,60 of the tensor, class 1 of two, and others below the threshold.
std::vector<LayoutRow> layouts()
{
    return {
        // clang-format off
        {"yolov8", "<1,6,8>", {{10, 60, 10, 10, 10, 10, 10, 10,   10, 45, 10, 10, 10, 10, 10, 10,
                                5, 40, 5, 5, 5, 5, 5, 5,          5, 30, 5, 5, 5, 5, 5, 5,
                                0.1F, 0.2F, 0, 0, 0, 0, 0, 0,     0.3F, 0.9F, 0, 0, 0, 0, 0, 0}}},
        {"yolov8", "<1,7,6>", {{10, 10, 5, 5, 0.1F, 0.3F,  60, 45, 40, 30, 0.2F, 0.9F,  9, 9, 5, 5, 0, 0,
                                9, 9, 5, 5, 0, 0,  9, 9, 5, 5, 0, 0,  9, 9, 5, 5, 0, 0,  9, 9, 5, 5, 0, 0}}},
        {"yolov8", "<1,3,4>,<1,3>,<1,3>", {{1, 1, 9, 9,  40, 30, 80, 60,  2, 2, 9, 9}, {0.1F, 0.9F, 0.2F}, {0, 1, 1}}},
        {"yolov5", "<1,2,7>", {{10, 10, 5, 5, 0.6F, 0.5F, 0.7F,  60, 45, 40, 30, 0.95F, 0.1F, 0.95F}}},
        {"ssd", "<1,1,3,7>", {{0, 1, 0.1F, 0, 0, 1, 1,  0, 1, 0.9F, 0.25F, 0.25F, 0.5F, 0.5F,  -1, 1, 0.9F, 0, 0, 1, 1}}},
        {"ssd", "<1,2,4>,<1,2,3>", {{0, 0, 1, 1,  0.25F, 0.25F, 0.5F, 0.5F}, {0.9F, 0.1F, 0,  0.05F, 0.9F, 0.05F}}},
        {"ssd", "<1,2,3>,<1,2,4>", {{0.9F, 0.1F, 0,  0.05F, 0.9F, 0.05F}, {0, 0, 1, 1,  0.25F, 0.25F, 0.5F, 0.5F}}},
        // clang-format on
    };
}

TEST_F(MlVDetection, EveryLayoutOfEveryModuleIsDrawnAtItsPlace)
{
    const std::string labels = file("labels.txt", "nothing\nthing\n");
    for (const LayoutRow& row : layouts()) {
        const BufferPtr mask = detect(std::string("threshold=75 results=10 module=") + row.module + " labels=" + labels,
                                      row.dimensions, row.tensors);
        ASSERT_TRUE(mask) << row.module << row.dimensions;
        EXPECT_EQ(box_around(mask, 120, 90), (Area{80, 60, 160, 120})) << row.module << row.dimensions;
        EXPECT_EQ(drawn_area(mask, kMask, 80), (Area{80, 80, 160, 120})) << row.module << row.dimensions;
        // Class 1 is green in each; opaque.
        const Frame frame(mask.get(), kMask);
        EXPECT_EQ(frame.at(3, 80, 90), 255);
        EXPECT_GT(frame.at(1, 80, 90), 200) << row.module << row.dimensions;
        EXPECT_LT(frame.at(0, 80, 90), 60) << row.module << row.dimensions;
    }
}

const std::vector<std::vector<float>> kThreeRows = {
    {40, 40, 20, 20, 1, 0.9F, 42, 40, 20, 20, 1, 0.8F, 100, 80, 20, 20, 1, 0.6F}};

TEST_F(MlVDetection, OverlappingBoxesOfOneClassAreOne)
{
    const BufferPtr mask = detect("threshold=50 module=yolov5", "<1,3,6>", kThreeRows);
    EXPECT_EQ(box_around(mask, 80, 80), (Area{60, 60, 100, 100}));
    EXPECT_EQ(box_around(mask, 200, 160), (Area{180, 140, 220, 180}));
}

TEST_F(MlVDetection, ThresholdAndResultsLimitWhatIsDrawn)
{
    const BufferPtr sure = detect("threshold=75 module=yolov5", "<1,3,6>", kThreeRows);
    EXPECT_EQ(drawn_area(sure, kMask, 110)[2], 0);
    const BufferPtr best = detect("threshold=10 results=1 module=yolov5", "<1,3,6>", kThreeRows);
    EXPECT_EQ(drawn_area(best, kMask, 110)[2], 0);
    const BufferPtr none = detect("threshold=95 module=yolov5", "<1,3,6>", kThreeRows);
    EXPECT_EQ(drawn_area(none, kMask)[2], 0);
}

TEST_F(MlVDetection, NumbersThatAreNoBoxesAreLeftOut)
{
    const float nan = std::nanf("");
    const BufferPtr mask = detect("threshold=50 module=yolov5", "<1,6,6>",
                                  {{nan, 40, 20,  20, 1, 1, 40, INFINITY, 20, 20, 1,   1, 40,    40,    0, 20, 1, 1,
                                    40,  40, -20, 20, 1, 1, 40, 40,       20, 20, nan, 1, 1e30F, 1e30F, 2, 2,  1, 1}});
    ASSERT_TRUE(mask);
    EXPECT_EQ(drawn_area(mask, kMask)[2], 0);
}

TEST_F(MlVDetection, ABoxThatReachesOutIsCutOff)
{
    const BufferPtr mask = detect("threshold=50 module=yolov5", "<1,1,6>", {{150, 110, 60, 60, 1, 1}});
    EXPECT_EQ(drawn_area(mask, kMask, 200), (Area{240, 200, 320, 240}));
}

TEST_F(MlVDetection, ThePartOfTheVideoThatTheTensorShowsIsWhereBoxesGo)
{
    // The tensor shows the middle of the video, in its lower half.
    const std::string view = "picture-size=(int)<640,480>,picture-source=(int)<160,0,320,480>,"
                             "picture-tensor=(int)<100,200>,picture-place=(int)<0,100,100,100>";
    const HarnessPtr harness =
        make_harness("qtimlvdetection threshold=50 module=yolov5", tensor_caps("<1,1,6>", view), kMask);
    const BufferPtr mask = push_and_pull(harness, make_tensors({{50, 150, 50, 50, 1, 1}}));
    EXPECT_EQ(box_around(mask, 160, 120), (Area{120, 60, 200, 180}));
}

TEST_F(MlVDetection, TheMaskHasTheVideosSizeRateAndTimes)
{
    const HarnessPtr harness = make_harness("qtimlvdetection module=yolov5", tensor_caps("<1,1,6>"), "");
    BufferPtr input = make_tensors({{50, 50, 50, 50, 0, 0}});
    GST_BUFFER_PTS(input.get()) = 5 * GST_SECOND;
    GST_BUFFER_DURATION(input.get()) = 40 * GST_MSECOND;
    const BufferPtr mask = push_and_pull(harness, input);
    ASSERT_TRUE(mask);
    EXPECT_EQ(GST_BUFFER_PTS(mask.get()), 5 * GST_SECOND);
    EXPECT_EQ(GST_BUFFER_DURATION(mask.get()), 40 * GST_MSECOND);
    const std::string caps = output_caps(harness);
    for (const char* part :
         {"video/x-raw, format=(string)BGRA", "width=(int)320", "height=(int)240", "framerate=(fraction)25/1"})
        EXPECT_NE(caps.find(part), std::string::npos) << caps;
}

TEST_F(MlVDetection, RgbaHasTheSameColoursAsBgra)
{
    const std::string rgba = video_caps(size_caps("RGBA", 101, 75), "(memory:GBM)");
    const std::string bgra = video_caps(size_caps("BGRA", 101, 75));
    const std::string launch = "qtimlvdetection threshold=50 module=yolov5";
    const auto draw = [&](const std::string& caps) {
        const HarnessPtr harness = make_harness(launch.c_str(), tensor_caps("<1,1,6>"), caps);
        return push_and_pull(harness, make_tensors({{80, 60, 60, 60, 1, 1}}));
    };
    const BufferPtr first = draw(rgba);
    const BufferPtr second = draw(bgra);
    const Frame a(first.get(), rgba);
    const Frame b(second.get(), bgra);
    int opaque = 0;
    for (int y = 0; y < 75; ++y)
        for (int x = 0; x < 101; ++x) {
            for (int c = 0; c < 4; ++c)
                ASSERT_EQ(a.at(c, x, y), b.at(c, x, y)) << x << "," << y;
            ASSERT_TRUE(a.at(3, x, y) == 0 || a.at(3, x, y) == 255);
            opaque += a.at(3, x, y) == 255;
        }
    EXPECT_GT(opaque, 200);
}

TEST_F(MlVDetection, LabelsAreWrittenAboveTheBox)
{
    const auto label_width = [&](const std::string& labels) {
        const std::string settings =
            "threshold=50 module=yolov5" + (labels.empty() ? "" : " labels=" + file("labels.txt", labels));
        const BufferPtr mask = detect(settings, "<1,1,7>", {{60, 60, 10, 10, 1, 0, 1}});
        const Area all = drawn_area(mask, kMask);
        EXPECT_LT(all[1], 105);
        return all[2] - all[0];
    };
    const int number = label_width("");
    const int short_name = label_width("other\nox\n");
    const int long_name = label_width("other\r\na very long nåme\r\n");
    EXPECT_LT(short_name, number);
    EXPECT_GT(long_name, number);
    EXPECT_EQ(label_width("other\n"), number);
    EXPECT_EQ(label_width(std::string("other\nox \n\n\n")), short_name);
}

std::string chain(const std::string& model, const std::string& detection)
{
    return "videotestsrc num-buffers=3 pattern=black ! video/x-raw,format=NV12,width=64,height=36,framerate=25/1 ! "
           "qtimlvconverter ! qtimlqnn model=" +
           model + " ! qtimlvdetection " + detection + " ! video/x-raw(memory:GBM) ! fakesink";
}

TEST_F(MlVDetection, AnUnknownModuleIsAnErrorThatNamesTheKnownOnes)
{
    const std::string path = model({ModelOutput::yolov8, 64, 36, 8});
    EXPECT_EQ(run_to_end(chain(path, "module=guess")).text,
              "The module \"guess\" is not known; known are ssd, yolov5, yolov8.");
    EXPECT_EQ(run_to_end(chain(path, "")).text, "The module \"\" is not known; known are ssd, yolov5, yolov8.");
}

TEST_F(MlVDetection, AnOutputThatTheModuleCannotReadIsAnErrorThatNamesTheShape)
{
    struct Row {
        ModelOutput output;
        const char* shape;
        const char* module;
    };
    for (const Row& row :
         {Row{ModelOutput::yolov8, "<<1,5,1653>>", "ssd"}, Row{ModelOutput::yolov8, "<<1,5,1653>>", "yolov5"},
          Row{ModelOutput::raw_score, "<<1,1,29,57>>", "ssd"}, Row{ModelOutput::raw_score, "<<1,1,29,57>>", "yolov8"},
          Row{ModelOutput::raw_score, "<<1,1,29,57>>", "yolov5"}}) {
        const std::string text =
            run_to_end(chain(model({row.output, 64, 36, 8}), std::string("module=") + row.module)).text;
        EXPECT_EQ(text, std::string("The model's output ") + row.shape + " is not what the module \"" + row.module +
                            "\" reads.");
    }
}

TEST_F(MlVDetection, LabelsThatCannotBeReadAreAWarning)
{
    const std::string path = model({ModelOutput::yolov8, 64, 36, 8});
    const Ending ending = run_to_end(chain(path, "module=yolov8 labels=" + folder_ + "/absent.txt"));
    EXPECT_EQ(ending.text, "EOS");
    ASSERT_EQ(ending.warnings.size(), 1U);
    EXPECT_EQ(ending.warnings[0],
              "The labels \"" + folder_ + "/absent.txt\" cannot be read; classes are shown by number.");
}

TEST_F(MlVDetection, ABufferWithOtherTensorsIsAnError)
{
    const HarnessPtr harness = make_harness("qtimlvdetection module=yolov5", tensor_caps("<1,2,6>"), kMask);
    EXPECT_EQ(gst_harness_push(harness.get(), make_tensors({{1, 2, 3}}).release()), GST_FLOW_ERROR);
}

TEST_F(MlVDetection, AnotherSizeOfVideoMakesAnotherMask)
{
    const HarnessPtr harness = make_harness("qtimlvdetection threshold=50 module=yolov5", tensor_caps("<1,1,6>"), "");
    ASSERT_TRUE(push_and_pull(harness, make_tensors({{80, 60, 60, 60, 1, 1}})));
    const std::string view = "picture-size=(int)<101,75>,picture-source=(int)<0,0,101,75>,"
                             "picture-tensor=(int)<160,120>,picture-place=(int)<0,0,160,119>";
    gst_harness_set_src_caps_str(harness.get(), tensor_caps("<1,1,6>", view).c_str());
    const BufferPtr mask = push_and_pull(harness, make_tensors({{80, 60, 60, 60, 1, 1}}));
    ASSERT_TRUE(mask);
    EXPECT_EQ(drawn_area(mask, video_caps(size_caps("BGRA", 101, 75)), 40)[3], 57);
}

} // namespace

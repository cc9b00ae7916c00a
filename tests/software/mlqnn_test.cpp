#include "tensors.h"

#include <malloc.h>

#include <algorithm>

namespace {

using namespace velstream::test;

class MlQnn : public ModelTest {
protected:
    /// Three frames through the model.
    Ending run_model(const std::string& path) const
    {
        return run_to_end("videotestsrc num-buffers=3 pattern=black ! video/x-raw,width=64,height=36,framerate=25/1 ! "
                          "qtimlvconverter ! qtimlqnn model=" +
                          path + " backend=/opt/libBackend.so ! fakesink");
    }
};

constexpr SquareDetector kSmall{ModelOutput::yolov8, 64, 36, 8};

std::string small_caps()
{
    return "neural-network/tensors,type=(string)FLOAT32,dimensions=(int)<<1,3,36,64>>";
}

/// Black but for one square.
BufferPtr small_picture(int left, int top)
{
    std::vector<float> planes(3 * 36 * 64);
    for (std::size_t plane = 0; plane < 3; ++plane)
        for (int y = top; y < top + 8; ++y)
            for (int x = left; x < left + 8; ++x)
                planes[plane * 36 * 64 + static_cast<std::size_t>(64 * y + x)] = 1.0F;
    return make_tensors({planes});
}

TEST_F(MlQnn, TheModelDecidesAboutTheTensors)
{
    const HarnessPtr harness(gst_harness_new_parse(("qtimlqnn model=" + model(kSmall)).c_str()));
    gst_harness_play(harness.get());
    const PadPtr sink(gst_element_get_static_pad(element_of(harness), "sink"));
    const CapsPtr accepted(gst_pad_query_caps(sink.get(), nullptr));
    const CapsPtr wanted(gst_caps_from_string(small_caps().c_str()));
    EXPECT_TRUE(gst_caps_can_intersect(accepted.get(), wanted.get()));
    const CapsPtr other(
        gst_caps_from_string("neural-network/tensors,type=(string)UINT8,dimensions=(int)<<1,3,36,64>>"));
    EXPECT_FALSE(gst_caps_can_intersect(accepted.get(), other.get()));
    gst_harness_set_src_caps_str(harness.get(), small_caps().c_str());
    const BufferPtr output = push_and_pull(harness, small_picture(0, 0));
    ASSERT_TRUE(output);
    EXPECT_NE(output_caps(harness).find("dimensions=(int)< < (int)1, (int)5, (int)1653 > >"), std::string::npos)
        << output_caps(harness);
}

TEST_F(MlQnn, TheBestScoreIsWhereTheSquareIs)
{
    const HarnessPtr harness(gst_harness_new_parse(("qtimlqnn model=" + model(kSmall)).c_str()));
    gst_harness_set_src_caps_str(harness.get(), small_caps().c_str());
    for (const auto& [left, top] : {std::pair{0, 0}, std::pair{31, 5}, std::pair{56, 28}}) {
        BufferPtr input = small_picture(left, top);
        GST_BUFFER_PTS(input.get()) = 3 * GST_SECOND;
        const BufferPtr output = push_and_pull(harness, input);
        ASSERT_TRUE(output);
        EXPECT_EQ(GST_BUFFER_PTS(output.get()), 3 * GST_SECOND);
        const auto numbers = numbers_of<float>(output.get());
        ASSERT_EQ(numbers.size(), 5U * 1653U);
        const auto best = std::max_element(numbers.begin() + 4 * 1653, numbers.end());
        EXPECT_NEAR(*best, 1.0, 1e-3);
        const auto place = best - (numbers.begin() + 4 * 1653);
        EXPECT_EQ(numbers[static_cast<std::size_t>(place)], static_cast<float>(left) + 4);
        EXPECT_EQ(numbers[static_cast<std::size_t>(1653 + place)], static_cast<float>(top) + 4);
    }
}

TEST_F(MlQnn, BytesAndOpenBatchesAreTaken)
{
    SquareDetector detector = kSmall;
    detector.has_open_batch = true;
    EXPECT_EQ(run_model(model(detector)).text, "EOS");
    detector.takes_bytes = true;
    EXPECT_EQ(run_model(model(detector)).text, "EOS");
}

TEST_F(MlQnn, AModelThatCannotBeUsedIsAnErrorThatSaysWhy)
{
    const std::string absent = folder_ + "/absent.onnx";
    EXPECT_EQ(run_model(absent).text, "The model \"" + absent + "\" does not exist.");
    EXPECT_EQ(run_model("\"\"").text, "No model is set.");
    EXPECT_EQ(run_model(folder_).text, "The model \"" + folder_ + "\" cannot be read.");
    const std::string text = file("text.onnx", "this is no model\n");
    EXPECT_EQ(run_model(text).text, "The model \"" + text + "\" is no ONNX model.");
    const std::string empty = file("empty.onnx", "");
    EXPECT_EQ(run_model(empty).text, "The model \"" + empty + "\" is no ONNX model.");
    const std::string whole = make_square_detector(kSmall);
    const std::string cut = file("cut.onnx", whole.substr(0, whole.size() / 2));
    EXPECT_EQ(run_model(cut).text, "The model \"" + cut + "\" is no ONNX model.");
}

TEST_F(MlQnn, AnOpenSizeIsAnErrorThatNamesTheShape)
{
    SquareDetector detector = kSmall;
    detector.has_open_size = true;
    const std::string path = model(detector);
    EXPECT_EQ(run_model(path).text, "The input <<1,3,0,0>> of the model \"" + path + "\" has no fixed size.");
}

TEST_F(MlQnn, WeightsInOtherFilesAreAnError)
{
    SquareDetector detector = kSmall;
    detector.has_other_files = true;
    const std::string path = model(detector);
    EXPECT_EQ(run_model(path).text, "The model \"" + path + "\" keeps weights in other files, which is not supported.");
}

TEST_F(MlQnn, AnOperatorThatNobodyKnowsIsAnError)
{
    SquareDetector detector = kSmall;
    detector.is_unknown_operator = true;
    const std::string path = model(detector);
    const std::string text = run_model(path).text;
    EXPECT_TRUE(text.starts_with("The model \"" + path + "\" cannot be ")) << text;
}

/// Damaged anywhere, a model is an error or still a model; it never ends the process.
TEST_F(MlQnn, DamagedModelsNeverCrash)
{
    const std::string whole = make_square_detector({ModelOutput::yolov8, 16, 12, 4});
    uint32_t random = 1;
    for (int round = 0; round < 150; ++round) {
        std::string damaged = whole;
        for (int i = 0; i < 1 + round % 4; ++i) {
            random = random * 1664525U + 1013904223U;
            const std::size_t place = round % 2 ? random % 200 : random % damaged.size();
            damaged[place] = static_cast<char>(random >> 24);
        }
        const std::string path = file("damaged.onnx", damaged);
        EXPECT_NE(run_model(path).text, "nothing") << round;
    }
}

TEST_F(MlQnn, ThousandStartsAndStopsOfTheChainKeepTheHeapFlat)
{
    const std::string launch = "qtimlvconverter ! qtimlqnn model=" + model({ModelOutput::yolov8, 16, 12, 4}) +
                               " ! qtimlvdetection module=yolov8 labels=" + file("labels.txt", "square\n");
    const std::string caps = video_caps(size_caps("NV12", 64, 48));
    const BufferPtr input = make_frame(caps);
    double after_warm_up = 0;
    const auto heap_in_use = [] {
        const struct mallinfo2 info = mallinfo2();
        return static_cast<double>(info.uordblks + info.hblkhd);
    };
    for (int round = 0; round < 1000; ++round) {
        if (round == 100) after_warm_up = heap_in_use();
        const HarnessPtr harness = make_harness(launch.c_str(), caps, "");
        ASSERT_TRUE(push_and_pull(harness, input)) << round;
    }
    // A leaked frame, tensor or network a round would be 2 MB and more.
    EXPECT_LT(heap_in_use() - after_warm_up, 1.5e6);
}

} // namespace

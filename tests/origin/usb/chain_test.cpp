// The chain from the camera to the output, what is said about it, and the environment that a start leaves.
#include "StreamBuild.h"
#include "test_platform.h"
#include "usb_stream.h"

#include <cstdlib>
#include <future>

using namespace Quorvis::VelStream;

namespace velstream::testing {

namespace {

using Lines = std::vector<std::string>;

/// A bin like a display's.
class DisplayOutput : public StreamOutput {
public:
    GstElement* build() override
    {
        GstElement* bin = gst_bin_new("display");
        GstElement* sink = gst_element_factory_make("fakesink", nullptr);
        gst_bin_add(GST_BIN(bin), sink);
        createSinkPad(bin, sink);
        return bin;
    }
};

class MissingOutput : public StreamOutput {
public:
    GstElement* build() override { return nullptr; }
};

Lines engine_line()
{
    return on_platform(Lines{}, Lines{}, Lines{}, Lines{"I Platform is 8550, will skip opengl handling."});
}

const char* const kRegistration = "I Registration pipeline for stream id: usb";
const char* const kFakesink = "I streamOutput is set to fakesink due to streamOutput is nullptr.";
const char* const kLinkFailure = "E Failed to link elements "
                                 "input/qtivtransformInput/capsfilter1/qtivtransformOutput/capsfilter2/output in the "
                                 "pipeline.";

Lines joined(Lines first, const Lines& second)
{
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

class UsbChain : public UsbStream {
protected:
    /// Looks at the pipeline while the callback holds the first frame; then the stream is stopped.
    void look(const std::function<void(GstElement*)>& look_at, std::shared_ptr<StreamOutput> output = nullptr)
    {
        std::promise<void> gate;
        std::promise<void> first_frame;
        std::shared_future<void> opened = gate.get_future().share();
        StreamCall call(usb_stream("usb", usb_property(), std::move(output)), [&](const Image& image) {
            if (image.frameIndex != 1) return;
            first_frame.set_value();
            opened.wait();
        });
        const bool is_there = first_frame.get_future().wait_for(kPatience) == std::future_status::ready;
        EXPECT_TRUE(is_there);
        if (is_there) {
            const ElementPtr pipeline(GST_ELEMENT(gst_object_ref(pipeline_map.at("usb"))));
            EXPECT_EQ(pipeline_s, pipeline.get());
            look_at(pipeline.get());
        }
        gate.set_value();
        EXPECT_TRUE(stop_ends_call(call, "usb"));
        EXPECT_EQ(call.result(), 0);
    }

    int run_to_end(const StreamProperty& property, std::shared_ptr<StreamOutput> output = nullptr)
    {
        StreamCall call(usb_stream("usb", property, std::move(output)));
        EXPECT_TRUE(call.wait_for_end());
        EXPECT_EQ(call.frames(), 0);
        return call.result().value_or(1);
    }
};

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "unset";
}

} // namespace

TEST_F(UsbChain, ToAFakesink)
{
    look([](GstElement* pipeline) {
        EXPECT_EQ(chain_from(child(pipeline, "queue_input_src").get()),
                  (Lines{"v4l2src:queue_input_src", "jpegdec:usb_jpegdec", "videoconvert:usb_videoconvert",
                         "capsfilter:qtivtransformInputCap", "qtivtransform:qtivtransformOutput",
                         "capsfilter:qtivtransformOutputCap", "fakesink"}));
        EXPECT_EQ(factories_in(pipeline).size(), 7U) << "nothing beside the chain";
        EXPECT_EQ(name_of(pipeline), "usb");
    });
}

TEST_F(UsbChain, ToADisplay)
{
    look(
        [](GstElement* pipeline) {
            EXPECT_EQ(chain_from(child(pipeline, "qtivtransformOutputCap").get()),
                      (Lines{"capsfilter:qtivtransformOutputCap", "bin:display"}));
            EXPECT_EQ(factories_in(pipeline).size(), 7U);
        },
        std::make_shared<DisplayOutput>());
    EXPECT_FALSE(log_has(kFakesink));
}

TEST_F(UsbChain, FiltersHaveTheConfiguredSize)
{
    look([](GstElement* pipeline) {
        EXPECT_TRUE(has_caps(child(pipeline, "qtivtransformInputCap").get(),
                             "video/x-raw,format=(string)RGB,width=(int)640,height=(int)480"));
        EXPECT_TRUE(has_caps(child(pipeline, "qtivtransformOutputCap").get(),
                             "video/x-raw(memory:GBM),format=(string)NV12,width=(int)640,height=(int)480"));
    });
}

TEST_F(UsbChain, DeviceAndEngineAreSet)
{
    const ElementPtr untouched = share(gst_element_factory_make("qtivtransform", nullptr));
    const long own = number_of(untouched.get(), "engine");
    look([own](GstElement* pipeline) {
        EXPECT_EQ(text_of(child(pipeline, "queue_input_src").get(), "device"), kCamera);
        EXPECT_EQ(number_of(child(pipeline, "qtivtransformOutput").get(), "engine"), on_platform(own, own, own, 2L));
    });
}

TEST_F(UsbChain, TapStandsBehindTheRgbFilter)
{
    look([](GstElement* pipeline) {
        const PadPtr pad(gst_element_get_static_pad(child(pipeline, "qtivtransformInputCap").get(), "src"));
        EXPECT_EQ(pad->num_probes, 1);
    });
    // The plain tap on every platform.
    EXPECT_TRUE(log_has("I callback on_buffer_received start. frame: 1"));
    EXPECT_FALSE(log_has("I START: on_buffer_received_v4l2 - ############################################ idx: 1"));
}

TEST_F(UsbChain, LinesOfAStreamThatIsStopped)
{
    look([](GstElement*) {});
    EXPECT_EQ(runner_lines(),
              joined(joined({kRegistration, kFakesink}, engine_line()),
                     {"I send_eos: stopping single pipeline usb",
                      "W Receiving EOS signal in message bus *****************", "I Pipeline completed (EOS)."}));
    for (const std::string& file : log_files())
        EXPECT_NE(file.find("modules/origin/src/StreamBuild"), std::string::npos) << file;
}

TEST_F(UsbChain, EntryStaysInTheRegistryWithoutItsPipeline)
{
    look([](GstElement*) {});
    ASSERT_EQ(pipeline_map.count("usb"), 1U);
    EXPECT_EQ(pipeline_map.at("usb"), nullptr);
    EXPECT_EQ(pipeline_s, nullptr);
}

TEST_F(UsbChain, CallbackIsMovedFrom)
{
    std::function<int8_t(const Image&)> callback = [](const Image&) { return int8_t{0}; };
    EXPECT_EQ(startUsbStream(usb_property(0, 0), nullptr, "usb", callback), -1);
    EXPECT_FALSE(callback);
}

// ---- What is missing or does not link

class UsbChainWithout : public UsbChain, public ::testing::WithParamInterface<const char*> {};

TEST_P(UsbChainWithout, AnElementIsNotBuilt)
{
    const WithoutElement missing(GetParam());
    EXPECT_EQ(run_to_end(usb_property()), -1);
    EXPECT_EQ(log_lines(),
              (Lines{kRegistration, kFakesink, "E Failed to create one or more GStreamer elements in start_usb"}));
    EXPECT_TRUE(log_has("W Element " + std::string(GetParam()) + " is not installed or cannot be created."));
    EXPECT_EQ(pipeline_map.at("usb"), nullptr);
}

INSTANTIATE_TEST_SUITE_P(Elements, UsbChainWithout,
                         ::testing::Values("v4l2src", "jpegdec", "videoconvert", "qtivtransform", "capsfilter"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(UsbChain, OutputThatIsNotBuiltIsAFailedLink)
{
    EXPECT_EQ(run_to_end(usb_property(), std::make_shared<MissingOutput>()), -1);
    EXPECT_EQ(log_lines(), joined(joined({kRegistration}, engine_line()), {kLinkFailure}));
}

TEST_F(UsbChain, SizeOfZeroIsAFailedLink)
{
    // What an entry without "width" or "height" has.
    for (const auto& [width, height] : {std::pair{0, 0}, {640, 0}, {0, 480}, {-640, 480}}) {
        clear_log();
        EXPECT_EQ(run_to_end(usb_property(width, height)), -1);
        EXPECT_EQ(log_lines(), joined(joined({kRegistration, kFakesink}, engine_line()), {kLinkFailure}));
    }
}

// ---- The process's environment

TEST_F(UsbChain, LibraryPathThatIsUnsetBecomesTheSystems)
{
    unsetenv("LD_LIBRARY_PATH");
    run_to_end(usb_property(0, 0));
    EXPECT_EQ(environment("LD_LIBRARY_PATH"), "/usr/lib");
}

TEST_F(UsbChain, LibraryPathIsExtendedByEveryStart)
{
    setenv("LD_LIBRARY_PATH", "/opt/mine:/opt/other", 1);
    run_to_end(usb_property(0, 0));
    EXPECT_EQ(environment("LD_LIBRARY_PATH"), "/usr/lib:/opt/mine:/opt/other");
    run_to_end(usb_property(0, 0));
    EXPECT_EQ(environment("LD_LIBRARY_PATH"), "/usr/lib:/usr/lib:/opt/mine:/opt/other");
}

TEST_F(UsbChain, LibraryPathIsExtendedOnceForEachOfManyStartsAtOnce)
{
    setenv("LD_LIBRARY_PATH", "/opt/mine", 1);
    std::vector<std::unique_ptr<StreamCall>> calls;
    for (int number = 0; number < 8; ++number)
        calls.push_back(std::make_unique<StreamCall>(usb_stream("usb" + std::to_string(number), usb_property(0, 0))));
    for (const auto& call : calls)
        EXPECT_TRUE(call->wait_for_end());
    std::string expected = "/opt/mine";
    for (int number = 0; number < 8; ++number)
        expected = "/usr/lib:" + expected;
    EXPECT_EQ(environment("LD_LIBRARY_PATH"), expected);
}

TEST_F(UsbChain, DisplaysEnvironmentIsThePlatforms)
{
    const char* const names[] = {"WAYLAND_DISPLAY",    "XDG_RUNTIME_DIR", "GST_PLUGIN_SYSTEM_PATH", "GST_PLUGIN_PATH",
                                 "GST_PLUGIN_SCANNER", "GST_REGISTRY",    "GST_REGISTRY_1_0"};
    for (const char* name : names)
        setenv(name, "before", 1);
    run_to_end(usb_property(0, 0));
    const std::string before = "before";
    EXPECT_EQ(environment("WAYLAND_DISPLAY"), on_platform<std::string>(before, "wayland-1", before, before));
    EXPECT_EQ(environment("XDG_RUNTIME_DIR"), on_platform<std::string>(before, "/dev/socket/weston", before, before));
    for (const char* name :
         {"GST_PLUGIN_SYSTEM_PATH", "GST_PLUGIN_PATH", "GST_PLUGIN_SCANNER", "GST_REGISTRY", "GST_REGISTRY_1_0"})
        EXPECT_EQ(environment(name), before) << name;
}

} // namespace velstream::testing

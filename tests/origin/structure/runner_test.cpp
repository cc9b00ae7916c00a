// The chain that this executable's platform puts between an input and an output, how it runs and how it ends.
#include "ConfigFile.h"
#include "Elements.h"
#include "RecordedLog.h"
#include "StreamBuild.h"
#include "patience.h"
#include "test_platform.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <future>
#include <mutex>
#include <thread>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

const char* const kRegistration = "I Registration pipeline for stream id: cam";
const char* const kFakesinkLine = "I streamOutput is set to fakesink due to streamOutput is nullptr.";
const char* const kConfigurationLine = "I Start to get configuration properties for stream id: cam.";

/// A few NV12 pictures of 64x48; or an error in place of the first.
class TestInput : public StreamInput {
public:
    explicit TestInput(bool fails = false) : StreamInput("", "cam"), fails_(fails) {}

    GstElement* build() override
    {
        ++builds;
        GstElement* bin = gst_bin_new("test_input");
        GstElement* source = gst_element_factory_make("videotestsrc", nullptr);
        GstElement* filter = gst_element_factory_make("capsfilter", nullptr);
        g_object_set(source, "num-buffers", 3, nullptr);
        const CapsPtr caps(gst_caps_from_string("video/x-raw,format=NV12,width=64,height=48,framerate=50/1"));
        g_object_set(filter, "caps", caps.get(), nullptr);
        gst_bin_add_many(GST_BIN(bin), source, filter, nullptr);
        gst_element_link(source, filter);
        createSrcPad(bin, filter);
        const PadPtr pad(gst_element_get_static_pad(filter, "src"));
        if (fails_) gst_pad_add_probe(pad.get(), GST_PAD_PROBE_TYPE_BUFFER, post_error, this, nullptr);
        return bin;
    }

    int builds = 0;
    std::vector<ElementPtr> transforms; ///< of each attempt; held, so that a fresh one has another address

private:
    static GstPadProbeReturn post_error(GstPad* pad, GstPadProbeInfo*, gpointer user_data)
    {
        auto* self = static_cast<TestInput*>(user_data);
        const ElementPtr filter(gst_pad_get_parent_element(pad));
        const ElementPtr bin(GST_ELEMENT(gst_element_get_parent(filter.get())));
        const ElementPtr pipeline(GST_ELEMENT(gst_element_get_parent(bin.get())));
        const char* name =
            on_platform("qtivtransformInput_ub2024", "qtivtransformInput", "qtivtransformInput", "qtivtransformInput");
        ElementPtr transform = child(pipeline.get(), name);
        const bool is_known = !self->transforms.empty() && self->transforms.back() == transform;
        if (!is_known) {
            self->transforms.push_back(std::move(transform));
            GError* error = g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED, "it broke");
            gst_element_post_message(bin.get(), gst_message_new_error(GST_OBJECT(bin.get()), error, nullptr));
            g_error_free(error);
        }
        return GST_PAD_PROBE_DROP;
    }

    bool fails_;
};

/// A bin that is built but takes no RGB-side link: it has no pad.
class PadlessInput : public StreamInput {
public:
    PadlessInput() : StreamInput("", "cam") {}
    GstElement* build() override { return gst_bin_new("padless"); }
};

class MissingInput : public StreamInput {
public:
    MissingInput() : StreamInput("", "cam") {}
    GstElement* build() override { return nullptr; }
};

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

bool starts_with(const std::string& text, const std::string& start)
{
    return text.rfind(start, 0) == 0;
}

/// The runner's lines without the tap's and without the changes of state.
Lines runner_lines()
{
    Lines kept;
    for (const std::string& line : log_lines()) {
        bool is_other = false;
        for (const char* start : {"I START: ", "I END: ", "I callback on_buffer", "I Get width",
                                  "I Caps: ", "I caps_str", "I Callback", "I To calculate", "I FPS", "I Complete to",
                                  "I start_ub2404: STATE_CHANGED", "I start_ub2404: pipeline state changed"})
            is_other = is_other || starts_with(line, start);
        if (!is_other) kept.push_back(line);
    }
    return kept;
}

class Runner : public WithGStreamer {
protected:
    /// Runs to the end, and looks at the pipeline while the callback holds its first frame.
    int run(StreamInput* input, StreamOutput* output, const std::function<void(GstElement*)>& look = nullptr)
    {
        std::promise<void> first_frame;
        std::promise<void> gate;
        std::shared_future<void> opened = gate.get_future().share();
        std::function<int8_t(const Image&)> callback = [&](const Image& image) {
            frames_.push_back(image);
            if (frames_.size() > 1) return int8_t{0};
            first_frame.set_value();
            opened.wait_for(kPatience);
            return int8_t{0};
        };
        auto result = std::async(std::launch::async, [&] { return startStream(input, output, "cam", callback); });
        if (look) {
            EXPECT_EQ(first_frame.get_future().wait_for(kPatience), std::future_status::ready);
            const ElementPtr pipeline(GST_ELEMENT(gst_object_ref(pipeline_map.at("cam"))));
            EXPECT_EQ(pipeline_s, pipeline.get());
            look(pipeline.get());
        }
        gate.set_value();
        EXPECT_EQ(result.wait_for(kPatience), std::future_status::ready);
        return result.get();
    }

    static Lines chain_of(GstElement* pipeline) { return chain_from(child(pipeline, "test_input").get()); }

    const ConfigFile config_{complete_stream("cam", "H264")};
    TestInput input_;
    std::vector<Image> frames_;
};

const char* kTransformNames[][2] = {{"qtivtransformInput_ub2024", "qtivtransformOutput_ub2024"},
                                    {"qtivtransformInput", "qtivtransformOutput"}};

const char* const* transform_names()
{
    return kTransformNames[test_platform() == "ub2404" ? 0 : 1];
}

// ---- The chain. "capsfilter1" and "capsfilter2" look like names that nobody gave: FiltersHaveTheirCaps holds them.

TEST_F(Runner, ChainToAFakesink)
{
    run(&input_, nullptr, [](GstElement* pipeline) {
        const Lines generic{"bin:test_input", "qtivtransform:qtivtransformInput", "capsfilter:qtivtransformInputCap",
                            "qtivtransform:qtivtransformOutput", "fakesink"};
        EXPECT_EQ(
            chain_of(pipeline),
            on_platform(Lines{"bin:test_input", "queue:queue_input_ub2024", "capsfilter:capsfilter1_ub2024",
                              "qtivtransform:qtivtransformInput_ub2024", "queue:queue_mid_ub2024",
                              "capsfilter:capsfilter2_ub2024", "fakesink"},
                        Lines{"bin:test_input", "queue:queue_input", "qtivtransform:qtivtransformInput", "capsfilter",
                              "qtivtransform:qtivtransformOutput", "queue:queue_output", "capsfilter", "fakesink"},
                        generic, generic));
        EXPECT_EQ(factories_in(pipeline).size(), chain_of(pipeline).size()) << "nothing beside the chain";
        EXPECT_EQ(name_of(pipeline), "cam");
    });
}

TEST_F(Runner, ChainToADisplay)
{
    DisplayOutput output;
    run(&input_, &output, [](GstElement* pipeline) {
        const Lines generic{"bin:test_input", "qtivtransform:qtivtransformInput", "capsfilter:qtivtransformInputCap",
                            "qtivtransform:qtivtransformOutput", "bin:display"};
        EXPECT_EQ(
            chain_of(pipeline),
            on_platform(Lines{"bin:test_input", "queue:queue_input_ub2024", "capsfilter:capsfilter1_ub2024",
                              "qtivtransform:qtivtransformInput_ub2024", "queue:queue_mid_ub2024",
                              "capsfilter:capsfilter2_ub2024", "qtivtransform:qtivtransformOutput_ub2024",
                              "queue:queue_output_ub2024", "capsfilter:capsfilter3_ub2024", "bin:display"},
                        Lines{"bin:test_input", "queue:queue_input", "qtivtransform:qtivtransformInput", "capsfilter",
                              "qtivtransform:qtivtransformOutput", "queue:queue_output", "capsfilter", "bin:display"},
                        generic, generic));
        if (test_platform() == "ub2404") {
            EXPECT_TRUE(
                has_caps(child(pipeline, "capsfilter3_ub2024").get(), "video/x-raw,format=NV12,colorimetry=bt709"));
            EXPECT_EQ(number_of(child(pipeline, "qtivtransformOutput_ub2024").get(), "engine"), 3);
        }
    });
    EXPECT_EQ(log_has("I start_ub2404: output factory=bin, skip_output_nv12_convert=0"), test_platform() == "ub2404");
}

TEST_F(Runner, FiltersHaveTheirCaps)
{
    run(&input_, nullptr, [](GstElement* pipeline) {
        const auto expect = [pipeline](const char* name, const char* caps) {
            const ElementPtr filter = child(pipeline, name);
            ASSERT_TRUE(filter) << name;
            EXPECT_TRUE(has_caps(filter.get(), caps)) << name;
        };
        if (test_platform() == "ub2404") {
            expect("capsfilter1_ub2024", "video/x-raw,format=NV12");
            expect("capsfilter2_ub2024", "video/x-raw,format=RGB");
        } else if (test_platform() == "v4l2") {
            expect("capsfilter1", "video/x-raw,format=RGB");
            expect("capsfilter2", "video/x-raw(memory:GBM),format=NV12,colorimetry=bt601");
        } else {
            expect("qtivtransformInputCap", "video/x-raw,format=RGB");
        }
    });
}

TEST_F(Runner, TransformsHaveTheirEngine)
{
    const ElementPtr untouched = share(gst_element_factory_make("qtivtransform", nullptr));
    const long own = number_of(untouched.get(), "engine");
    run(&input_, nullptr, [own](GstElement* pipeline) {
        EXPECT_EQ(number_of(child(pipeline, transform_names()[0]).get(), "engine"), on_platform(3L, own, own, 2L));
        if (test_platform() != "ub2404") {
            EXPECT_EQ(number_of(child(pipeline, transform_names()[1]).get(), "engine"), on_platform(3L, own, own, 2L));
        }
    });
}

TEST_F(Runner, PipelineRunsOnTheSystemClockWithoutLatency)
{
    run(&input_, nullptr, [](GstElement* pipeline) {
        EXPECT_EQ(gst_pipeline_get_latency(GST_PIPELINE(pipeline)), 0U);
        GstClock* clock = gst_pipeline_get_pipeline_clock(GST_PIPELINE(pipeline));
        GstClock* system = gst_system_clock_obtain();
        EXPECT_EQ(clock, system);
        gst_object_unref(clock);
        gst_object_unref(system);
    });
}

TEST_F(Runner, OutputIsSynchronisedOnV4l2Only)
{
    run(&input_, nullptr, [](GstElement* pipeline) {
        EXPECT_EQ(number_of(child_of_factory(pipeline, "fakesink").get(), "sync"), on_platform(0, 1, 0, 0));
    });
}

TEST_F(Runner, TapStandsBehindTheRgbFilter)
{
    run(&input_, nullptr, [](GstElement* pipeline) {
        const char* filter =
            on_platform("capsfilter2_ub2024", "capsfilter1", "qtivtransformInputCap", "qtivtransformInputCap");
        const PadPtr pad(gst_element_get_static_pad(child(pipeline, filter).get(), "src"));
        EXPECT_EQ(pad->num_probes, 1);
    });
    ASSERT_EQ(frames_.size(), 3U);
    EXPECT_EQ(frames_[0].width, 64);
    EXPECT_EQ(frames_[0].height, 48);
    EXPECT_EQ(frames_[0].size, 64U * 48U * 3U);
    EXPECT_EQ(frames_[0].streamId, "cam");
    EXPECT_EQ(frames_[2].frameIndex, 3);
    // The camera's tap on the V4L2 platforms, the plain one on the others.
    EXPECT_EQ(frames_[0].alignedWidth, is_v4l2_kind() ? 64 : 0);
    EXPECT_EQ(log_has("I START: on_buffer_received_v4l2 - ############################################ idx: 1"),
              is_v4l2_kind());
}

// ---- The process's environment

std::string environment(const char* name)
{
    const char* value = std::getenv(name);
    return value ? value : "unset";
}

TEST_F(Runner, EnvironmentIsThePlatforms)
{
    const char* const names[] = {"WAYLAND_DISPLAY",    "XDG_RUNTIME_DIR", "GST_PLUGIN_SYSTEM_PATH", "GST_PLUGIN_PATH",
                                 "GST_PLUGIN_SCANNER", "GST_REGISTRY",    "GST_REGISTRY_1_0"};
    for (const char* name : names)
        setenv(name, "before", 1);
    run(&input_, nullptr);
    const std::string plugins = "/opt/ubun20/usr/lib/aarch64-linux-gnu/gstreamer-1.0:"
                                "/usr/lib/aarch64-linux-gnu/gstreamer-1.0";
    const std::string scanner = "/opt/ubun20/usr/lib/aarch64-linux-gnu/gstreamer1.0/gstreamer-1.0/gst-plugin-scanner";
    const std::string before = "before";
    const std::string unset = "unset";
    EXPECT_EQ(environment("WAYLAND_DISPLAY"), on_platform<std::string>(before, "wayland-1", before, before));
    EXPECT_EQ(environment("XDG_RUNTIME_DIR"), on_platform<std::string>(before, "/dev/socket/weston", before, before));
    EXPECT_EQ(environment("GST_PLUGIN_SYSTEM_PATH"), on_platform(before, before, plugins, before));
    EXPECT_EQ(environment("GST_PLUGIN_PATH"), on_platform(before, before, plugins, before));
    EXPECT_EQ(environment("GST_PLUGIN_SCANNER"), on_platform(before, before, scanner, before));
    EXPECT_EQ(environment("GST_REGISTRY"), on_platform(before, before, unset, before));
    EXPECT_EQ(environment("GST_REGISTRY_1_0"), on_platform(before, before, unset, before));
}

// ---- What is missing or does not link

Lines start_lines(int attempt)
{
    if (test_platform() == "ub2404") return {};
    if (test_platform() == "v4l2")
        return {"I Platform is 6490 ql. Starting pipeline, attempt " + std::to_string(attempt) + " of 5"};
    Lines lines{"I Starting pipeline, attempt " + std::to_string(attempt) + " of 5"};
    if (test_platform() == "8550") lines.push_back("I Platform is 8550, will skip opengl handling.");
    return lines;
}

std::string link_failure(const char* generic)
{
    return on_platform<std::string>("E start_ub2404: Failed to link elements.",
                                    "E Failed to link elements "
                                    "input/qtivtransformInput/capsfilter1/qtivtransformOutput/capsfilter2/output in "
                                    "the pipeline.",
                                    generic, generic);
}

TEST_F(Runner, MissingBuilderIsLogged)
{
    std::function<int8_t(const Image&)> callback;
    EXPECT_EQ(startStream(nullptr, nullptr, "cam", callback), -1);
    EXPECT_EQ(log_lines(), (Lines{kRegistration, "E streamInput couldn't be created due to streamInput is nullptr."}));
    EXPECT_EQ(pipeline_map.at("cam"), nullptr) << "the entry stays, the pointer does not";
}

TEST_F(Runner, InputThatWasNotBuiltIsAFailedLink)
{
    MissingInput input;
    EXPECT_EQ(run(&input, nullptr), -1);
    EXPECT_EQ(log_lines().back(),
              link_failure("E Failed to link elements input with qtivtransformInput in the pipeline."));
}

TEST_F(Runner, InputWithoutAPadIsAFailedLink)
{
    PadlessInput input;
    EXPECT_EQ(run(&input, nullptr), -1);
    EXPECT_EQ(log_lines().back(),
              link_failure("E Failed to link elements input with qtivtransformInput in the pipeline."));
}

TEST_F(Runner, OutputThatWasNotBuiltIsAFailedLink)
{
    MissingOutput output;
    EXPECT_EQ(run(&input_, &output), -1);
    EXPECT_EQ(log_lines().back(),
              link_failure("E Failed to link elements qtivtransformOutput with output in the pipeline."));
    EXPECT_EQ(log_has("I start_ub2404: output factory=unknown, skip_output_nv12_convert=0"),
              test_platform() == "ub2404");
}

TEST_F(Runner, MissingTransformIsAFailure)
{
    const WithoutElement without("qtivtransform");
    EXPECT_EQ(run(&input_, nullptr), -1);
    const char* generic = "E Failed to link elements input with qtivtransformInput in the pipeline.";
    EXPECT_EQ(log_lines().back(), test_platform() == "ub2404" ? "E start_ub2404: Failed to create one or more elements."
                                                              : link_failure(generic));
}

TEST_F(Runner, MissingFilterIsAFailure)
{
    const WithoutElement without("capsfilter");
    TestInput input; // its own filter is missing too, so the pipeline's is asked for by the runner alone
    MissingInput nothing;
    EXPECT_EQ(run(&nothing, nullptr), -1);
    const char* generic = "E Failed to link elements input with qtivtransformInput in the pipeline.";
    EXPECT_EQ(log_lines().back(), test_platform() == "ub2404" ? "E start_ub2404: Failed to create one or more elements."
                                                              : link_failure(generic));
}

TEST_F(Runner, PipelineIsReleasedAfterAFailure)
{
    MissingInput input;
    EXPECT_EQ(run(&input, nullptr), -1);
    EXPECT_EQ(pipeline_map.count("cam"), 1U);
    EXPECT_EQ(pipeline_map.at("cam"), nullptr);
    EXPECT_EQ(pipeline_s, nullptr);
}

// ---- End of stream

TEST_F(Runner, EndOfStreamEndsTheCall)
{
    const int result = run(&input_, nullptr);
    Lines expected{kRegistration, kFakesinkLine};
    const Lines starts = start_lines(1);
    expected.insert(expected.end(), starts.begin(), starts.end());
    if (test_platform() == "ub2404") {
        EXPECT_EQ(result, 0);
        expected.insert(expected.end(), {"I Platform is ubuntu 2404. Starting pipeline once. stream_id=cam",
                                         "I start_ub2404: output factory=fakesink, skip_output_nv12_convert=1",
                                         "I start_ub2404: End-Of-Stream reached. stream_id=cam",
                                         "I start_ub2404: Pipeline stopped (EOS or external stop)."});
    } else if (test_platform() == "v4l2") {
        EXPECT_EQ(result, 0);
        expected.insert(expected.end(), {"I End-Of-Stream reached.", "I Pipeline completed (EOS) after 1 attempts."});
    } else {
        EXPECT_EQ(result, -1) << "so that the application starts it again";
        expected.insert(expected.end(), {"W Receiving EOS signal in message bus *****************", kConfigurationLine,
                                         kConfigurationLine, "E End-Of-Stream reached. Need manual rebuild. Exit.",
                                         "E Pipeline failed after 5 attempts."});
    }
    EXPECT_EQ(runner_lines(), expected);
    EXPECT_EQ(frames_.size(), 3U);
    EXPECT_EQ(input_.builds, 1);
    EXPECT_EQ(pipeline_map.at("cam"), nullptr) << "the entry stays, the pointer does not";
    EXPECT_EQ(pipeline_s, nullptr);
}

TEST_F(Runner, EndOfStreamOfAnMp4OutputEndsTheCall)
{
    config_.write(complete_stream("cam", "H264", R"(, "outputType": "mp4", "outputAddr": "/tmp/x.mp4")"));
    EXPECT_EQ(run(&input_, nullptr), on_platform(0, 0, -1, -1));
    if (is_v4l2_kind()) return;
    const Lines lines = runner_lines();
    ASSERT_GE(lines.size(), 4U);
    EXPECT_EQ(Lines(lines.end() - 4, lines.end()),
              (Lines{"W Receiving EOS signal in message bus *****************", kConfigurationLine,
                     "W End-Of-Stream reached. Saving mp4 file exit.", "E Pipeline failed after 5 attempts."}));
}

TEST_F(Runner, StateChangesAreLoggedOnUb2404Only)
{
    run(&input_, nullptr);
    EXPECT_EQ(log_has("I start_ub2404: STATE_CHANGED from cam"), test_platform() == "ub2404");
    EXPECT_EQ(log_has("I start_ub2404: pipeline state changed NULL -> READY"), test_platform() == "ub2404");
}

// ---- Errors

TEST_F(Runner, ErrorIsLoggedAndRetriedWithFreshElements)
{
    TestInput failing(true);
    EXPECT_EQ(run(&failing, nullptr), -1);
    Lines expected{kRegistration, kFakesinkLine};
    if (test_platform() == "ub2404") {
        expected.insert(expected.end(), {"I Platform is ubuntu 2404. Starting pipeline once. stream_id=cam",
                                         "I start_ub2404: output factory=fakesink, skip_output_nv12_convert=1",
                                         "E start_ub2404: ERROR from test_input: it broke",
                                         "E start_ub2404: debug info: none", "E start_ub2404: Pipeline failed."});
    } else {
        const bool is_v4l2 = test_platform() == "v4l2";
        for (int attempt = 1; attempt <= 5; ++attempt) {
            const Lines starts = start_lines(attempt);
            expected.insert(expected.end(), starts.begin(), starts.end());
            const char* end = is_v4l2 ? "\n" : "";
            expected.push_back(std::string("E Error received from element test_input: it broke") + end);
            expected.push_back(std::string("E Debugging information: none") + end);
            if (!is_v4l2) expected.push_back(kConfigurationLine);
            expected.push_back(attempt < 5 ? "I Retrying pipeline due to error. Attempt " + std::to_string(attempt + 1)
                                           : "E Pipeline failed after 5 attempts.");
        }
    }
    EXPECT_EQ(runner_lines(), expected);
    const std::size_t attempts = test_platform() == "ub2404" ? 1 : 5;
    ASSERT_EQ(failing.transforms.size(), attempts);
    for (std::size_t i = 1; i < attempts; ++i) {
        EXPECT_NE(failing.transforms[i - 1], failing.transforms[i]);
        EXPECT_EQ(name_of(failing.transforms[i].get()), "qtivtransformInput");
    }
    EXPECT_EQ(failing.builds, 1) << "the input is used again";
    EXPECT_EQ(pipeline_map.at("cam"), nullptr);
}

TEST_F(Runner, RebuildThatFailsCountsAsAnAttempt)
{
    // Nothing can rebuild this input type. The other platforms' runners never look at the switch.
    config_.write(one_stream("cam", R"("inputType": "usbcam", "inputAddr": "/dev/null", "manualRebuild": false)"));
    EXPECT_EQ(run(&input_, nullptr), on_platform(0, 0, -1, -1));
    if (is_v4l2_kind()) {
        EXPECT_FALSE(log_has("W End-Of-Stream reached. Manual rebuild switch disabled, It will rebuild."));
        return;
    }
    EXPECT_EQ(log_count("W End-Of-Stream reached. Manual rebuild switch disabled, It will rebuild."), 5);
    EXPECT_EQ(log_count("I re_create_pipeline - 6"), 5);
    EXPECT_EQ(log_count("E re_create_pipeline - Failed to link elements input - qtivtransformInput - capsfilter - "
                        "qtivtransformOutput - output in the pipeline."),
              5);
    EXPECT_EQ(log_count("I Retrying pipeline due to error. Attempt 5"), 1);
    EXPECT_EQ(log_lines().back(), "E Pipeline failed after 5 attempts.");
}

} // namespace

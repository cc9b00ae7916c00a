// docs/platforms.md draws each platform's chains: they are what the code builds.
#include "ConfigFile.h"
#include "Elements.h"
#include "StreamBuild.h"
#include "StreamInput.h"
#include "StreamOutput.h"
#include "patience.h"
#include "test_platform.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fstream>
#include <future>
#include <sstream>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

const char* const kThen = " > ";
const char* const kOnceItsPadsAppear = " >> ";

/// The element that a pad of this direction is linked to; null at a bin's own pads, which belong to no element.
ElementPtr neighbour(GstElement* element, GstPadDirection direction)
{
    for (GList* entry = element->pads; entry; entry = entry->next) {
        GstPad* pad = GST_PAD(entry->data);
        if (gst_pad_get_direction(pad) != direction) continue;
        const PadPtr peer(gst_pad_get_peer(pad));
        if (peer) return ElementPtr(gst_pad_get_parent_element(peer.get()));
    }
    return nullptr;
}

std::string without(std::string text, const std::string& part)
{
    for (std::size_t at = text.find(part); at != std::string::npos; at = text.find(part))
        text.erase(at, part.size());
    return text;
}

std::string caps_of(GstElement* filter)
{
    GstCaps* caps = nullptr;
    g_object_get(filter, "caps", &caps, nullptr);
    const CapsPtr owned(caps);
    const TextPtr text(gst_caps_to_string(caps));
    return "[" + without(without(without(text.get(), "(string)"), "(int)"), " ") + "]";
}

std::string settings_of(GstElement* element)
{
    if (has_property(element, "capture-io-mode") && number_of(element, "capture-io-mode") != 0)
        return "(io-mode capture " + std::to_string(number_of(element, "capture-io-mode")) + ", output " +
               std::to_string(number_of(element, "output-io-mode")) + ")";
    if (has_property(element, "engine") && number_of(element, "engine") > 1)
        return "(engine " + std::to_string(number_of(element, "engine")) + ")";
    return "";
}

std::string described(GstElement* element)
{
    const std::string factory = factory_of(element);
    if (factory == "capsfilter") return caps_of(element);
    if (factory == "bin") return element->numsinkpads == 0 ? "(input)" : "(output)";
    return factory + settings_of(element);
}

std::string chain_behind(GstElement* head)
{
    std::string text = described(head);
    for (ElementPtr next = neighbour(head, GST_PAD_SRC); next; next = neighbour(next.get(), GST_PAD_SRC))
        text += kThen + described(next.get());
    return text;
}

/// A bin's chains: the source's, then the one that is linked to it once its pads appear.
std::string chains_in(GstElement* bin)
{
    std::string text;
    for (GList* entry = GST_BIN_CHILDREN(bin); entry; entry = entry->next) {
        auto* element = GST_ELEMENT(entry->data);
        if (neighbour(element, GST_PAD_SINK)) continue;
        const std::string chain = chain_behind(element);
        if (text.empty())
            text = chain;
        else if (GST_OBJECT_FLAG_IS_SET(element, GST_ELEMENT_FLAG_SOURCE))
            text = chain + kOnceItsPadsAppear + text;
        else
            text += kOnceItsPadsAppear + chain;
    }
    return text;
}

template <typename Builder>
std::string input_chains()
{
    const ElementPtr bin = share(Builder("rtsp://127.0.0.1:1/in", "cam").build());
    return bin ? chains_in(bin.get()) : "not built";
}

std::string output_chain(StreamOutput&& builder)
{
    builder.set_stream_id("cam");
    const ElementPtr bin = share(builder.build());
    return bin ? chains_in(bin.get()) : "not built";
}

class PictureInput : public StreamInput {
public:
    PictureInput() : StreamInput("", "cam") {}
    GstElement* build() override
    {
        return gst_parse_bin_from_description(
            "videotestsrc num-buffers=3 ! video/x-raw,format=NV12,width=64,height=48 ! identity", TRUE, nullptr);
    }
};

class SinkOutput : public StreamOutput {
public:
    GstElement* build() override { return gst_parse_bin_from_description("fakesink", TRUE, nullptr); }
};

/// What stands between an input and an output while a stream runs.
std::string conversion(StreamOutput* output)
{
    PictureInput input;
    std::promise<std::string> chain;
    std::function<int8_t(const Image&)> callback = [&](const Image& image) {
        if (image.frameIndex == 1) {
            const ElementPtr pipeline(GST_ELEMENT(gst_object_ref(pipeline_map.at("cam"))));
            chain.set_value(chains_in(pipeline.get()));
        }
        return int8_t{0};
    };
    auto result = std::async(std::launch::async, [&] { return startStream(&input, output, "cam", callback); });
    auto drawn = chain.get_future();
    const bool came = drawn.wait_for(kPatience) == std::future_status::ready;
    result.wait_for(kPatience);
    return came ? drawn.get() : "no frame";
}

std::string drawing()
{
    SinkOutput output;
    return "file        " + input_chains<StreamInputFile>() + "\nrtsp        " + input_chains<StreamInputRtsp>() +
           "\nrtmp        " + input_chains<StreamInputRtmp>() + "\ncallback    " + conversion(nullptr) +
           "\nand output  " + conversion(&output) + "\nmp4         " +
           output_chain(StreamOutputMp4sink("/tmp/x.mp4", 1280, 720)) + "\nrtsp push   " +
           output_chain(StreamOutputRtspsink("rtsp://127.0.0.1:1/out", 1280, 720)) + "\nwayland     " +
           output_chain(StreamOutputWaylandsink(0, 0, 1280, 720)) + "\n";
}

/// The platform's block in the document.
std::string drawn_in_the_document()
{
    std::stringstream document;
    document << std::ifstream(PLATFORMS_DOCUMENT).rdbuf();
    const std::string text = document.str();
    const std::string opening = "```chains-" + test_platform() + "\n";
    const std::size_t start = text.find(opening);
    if (start == std::string::npos) return "";
    return text.substr(start + opening.size(), text.find("```", start + 3) - start - opening.size());
}

class Chains : public WithGStreamer {};

} // namespace

TEST_F(Chains, AreThoseThatTheDocumentDraws)
{
    const ConfigFile config(complete_stream("cam", "H264"));
    EXPECT_EQ(drawing(), drawn_in_the_document()) << "docs/platforms.md is to draw what the first text says.";
}

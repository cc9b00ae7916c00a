// Making, setting, adding and linking elements: what is refused leaves a line, never a critical or a lost reference.
#include "ElementTools.h"

#include "Elements.h"
#include "RecordedLog.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

ElementPtr make(const char* factory, const char* name = nullptr)
{
    return share(gst_element_factory_make(factory, name));
}

/// Warnings that GLib writes to the console while an object of this class lives.
class ConsoleWarnings {
public:
    ConsoleWarnings() : former_(g_log_set_default_handler(&count, this)) {}
    ~ConsoleWarnings() { g_log_set_default_handler(former_, nullptr); }
    ConsoleWarnings(const ConsoleWarnings&) = delete;
    ConsoleWarnings& operator=(const ConsoleWarnings&) = delete;

    int count() const { return count_; }

private:
    static void count(const char*, GLogLevelFlags, const char*, gpointer self)
    {
        ++static_cast<ConsoleWarnings*>(self)->count_;
    }

    int count_ = 0;
    GLogFunc former_;
};

class ElementTools : public WithGStreamer {};

// ---- Properties

TEST_F(ElementTools, EveryKindOfPropertyIsSet)
{
    const ElementPtr sink = make("fakesink");
    set_property(sink.get(), "num-buffers", 7);
    set_property(sink.get(), "sync", true);
    EXPECT_EQ(number_of(sink.get(), "num-buffers"), 7);
    EXPECT_EQ(number_of(sink.get(), "sync"), 1);
    const ElementPtr source = make("filesrc");
    set_property(source.get(), "location", std::string("/a b"));
    EXPECT_EQ(text_of(source.get(), "location"), "/a b");
    const ElementPtr filter = make("capsfilter");
    set_property(filter.get(), "caps", make_caps("video/x-raw,format=RGB"));
    EXPECT_TRUE(has_caps(filter.get(), "video/x-raw,format=RGB"));
    EXPECT_EQ(all_log_lines(), Lines{});
}

TEST_F(ElementTools, NumbersSetEnumsFlagsAndWiderNumbers)
{
    const ElementPtr source = make("rtspsrc");
    set_property(source.get(), "protocols", 4);
    set_property(source.get(), "timeout", 30000000);
    set_property(source.get(), "buffer-mode", 2);
    EXPECT_EQ(number_of(source.get(), "protocols"), 4) << "flags";
    EXPECT_EQ(number_of(source.get(), "timeout"), 30000000) << "64 bits, unsigned";
    EXPECT_EQ(number_of(source.get(), "buffer-mode"), 2) << "enum";
}

TEST_F(ElementTools, UnknownAndReadOnlyPropertiesAreSkippedWithALine)
{
    const ElementPtr identity = make("identity");
    const PadPtr pad(gst_element_get_static_pad(identity.get(), "sink"));
    const ConsoleWarnings console;
    set_property(identity.get(), "engine", 2);
    set_property(pad.get(), "caps", make_caps("video/x-h265,stream-format=byte-stream,alignment=au"));
    EXPECT_EQ(all_log_lines(), (Lines{"I Property engine of GstIdentity is missing or read-only, skipped.",
                                      "I Property caps of GstPad is missing or read-only, skipped."}));
    EXPECT_EQ(CapsPtr(gst_pad_get_current_caps(pad.get())), nullptr);
    EXPECT_EQ(console.count(), 0);
}

TEST_F(ElementTools, ValuesThatAPropertyRefusesAreSkippedWithALine)
{
    const ElementPtr source = make("rtspsrc");
    const ElementPtr filter = make("capsfilter");
    const ConsoleWarnings console;
    set_property(source.get(), "buffer-mode", 99);           // no such value of the enum
    set_property(source.get(), "udp-buffer-size", -1);       // below the least
    set_property(filter.get(), "caps", 5);                   // no caps at all
    set_property(source.get(), "latency", make_caps("a/b")); // no number
    EXPECT_EQ(all_log_lines(), (Lines{"I Property buffer-mode of GstRTSPSrc does not take its value, skipped.",
                                      "I Property udp-buffer-size of GstRTSPSrc does not take its value, skipped.",
                                      "I Property caps of GstCapsFilter does not take its value, skipped.",
                                      "I Property latency of GstRTSPSrc does not take its value, skipped."}));
    EXPECT_EQ(number_of(source.get(), "udp-buffer-size"), 524288) << "the element's own";
    EXPECT_TRUE(has_caps(filter.get(), "ANY"));
    EXPECT_EQ(console.count(), 0);
}

TEST_F(ElementTools, PropertiesOfAMissingElementAreSkippedSilently)
{
    set_property(nullptr, "engine", 2);
    set_property(nullptr, "sync", true);
    set_property(nullptr, "location", std::string("a"));
    set_property(nullptr, "caps", make_caps("a/b"));
    EXPECT_EQ(all_log_lines(), Lines{});
}

TEST_F(ElementTools, MissingElementIsAWarningThatNamesIt)
{
    EXPECT_FALSE(make_element("noelementofthisname", "x"));
    EXPECT_FALSE(make_located("noelementofthisname", "x", "/a"));
    const std::string line = "W Element noelementofthisname is not installed or cannot be created.";
    EXPECT_EQ(all_log_lines(), (Lines{line, line}));
}

TEST_F(ElementTools, IoModeOfZeroLeavesTheElementsOwn)
{
    const ElementPtr decoder = make("v4l2h264dec");
    set_io_modes(decoder.get(), {4, 0});
    EXPECT_EQ(number_of(decoder.get(), "capture-io-mode"), 4);
    EXPECT_EQ(number_of(decoder.get(), "output-io-mode"), 0);
}

// ---- Adding

TEST_F(ElementTools, BinRefusesANameTwiceAndKeepsNoReference)
{
    const ElementPtr bin = share(gst_bin_new("bin"));
    const ElementPtr first = make("identity", "same");
    const ElementPtr second = make("identity", "same");
    const ElementPtr other = make("identity", "other");
    EXPECT_FALSE(add_all(bin.get(), {first.get(), second.get(), other.get()}));
    EXPECT_EQ(factories_in(bin.get()), (Lines{"identity", "identity"})) << "what comes after it is added";
    EXPECT_EQ(child(bin.get(), "same").get(), first.get());
    EXPECT_EQ(GST_OBJECT_PARENT(second.get()), nullptr);
    EXPECT_EQ(reference_count(second.get()), 1);
}

TEST_F(ElementTools, BinRefusesABinWhoseNameIsTaken)
{
    const ElementPtr pipeline = share(gst_pipeline_new("pipeline"));
    const ElementPtr first = share(gst_bin_new("velstream-output-rtspsink"));
    const ElementPtr second = share(gst_bin_new("velstream-output-rtspsink"));
    EXPECT_TRUE(add_all(pipeline.get(), {first.get()}));
    EXPECT_FALSE(add_all(pipeline.get(), {second.get()}));
    EXPECT_EQ(GST_BIN_NUMCHILDREN(pipeline.get()), 1);
    EXPECT_EQ(reference_count(second.get()), 1);
}

TEST_F(ElementTools, BinRefusesAnElementOfAnotherBin)
{
    const ElementPtr owner = share(gst_bin_new("owner"));
    const ElementPtr bin = share(gst_bin_new("bin"));
    const ElementPtr element = make("identity");
    EXPECT_TRUE(add_all(owner.get(), {element.get()}));
    EXPECT_FALSE(add_all(bin.get(), {element.get()}));
    EXPECT_EQ(GST_OBJECT_PARENT(element.get()), GST_OBJECT(owner.get()));
    EXPECT_EQ(GST_BIN_NUMCHILDREN(bin.get()), 0);
    EXPECT_EQ(reference_count(element.get()), 2) << "the owner's and the test's";
}

TEST_F(ElementTools, MissingElementsArePassedOverWhenAdding)
{
    const ElementPtr bin = share(gst_bin_new("bin"));
    const ElementPtr element = make("identity");
    EXPECT_TRUE(add_all(bin.get(), {nullptr, element.get(), nullptr}));
    EXPECT_EQ(GST_BIN_NUMCHILDREN(bin.get()), 1);
}

// ---- Linking

class Linking : public ElementTools {
protected:
    void SetUp() override { add_all(bin_.get(), {source_.get(), filter_.get(), sink_.get(), other_source_.get()}); }

    const ElementPtr bin_ = share(gst_bin_new("bin"));
    const ElementPtr source_ = make("fakesrc");
    const ElementPtr filter_ = make("identity");
    const ElementPtr sink_ = make("fakesink");
    const ElementPtr other_source_ = make("fakesrc");
};

TEST_F(Linking, ChainIsLinkedInItsOrder)
{
    EXPECT_TRUE(link_chain({source_.get(), filter_.get(), sink_.get()}));
    EXPECT_EQ(chain_from(source_.get()), (Lines{"fakesrc", "identity", "fakesink"}));
}

TEST_F(Linking, ElementsThatHaveNoPadForItAreAFailedLink)
{
    EXPECT_FALSE(link_chain({sink_.get(), filter_.get()})) << "a sink has no source pad";
    EXPECT_FALSE(link_chain({filter_.get(), source_.get()})) << "a source has no sink pad";
    EXPECT_TRUE(link_chain({source_.get(), filter_.get()}));
    EXPECT_FALSE(link_chain({other_source_.get(), filter_.get()})) << "the pad is taken";
    EXPECT_EQ(all_log_lines(), Lines{});
}

TEST_F(Linking, ElementsOfDifferentBinsAreAFailedLink)
{
    const ElementPtr elsewhere = share(gst_bin_new("elsewhere"));
    const ElementPtr stranger = make("fakesink");
    add_all(elsewhere.get(), {stranger.get()});
    EXPECT_FALSE(link_chain({source_.get(), stranger.get()}));
}

TEST_F(Linking, MissingElementIsAFailedLinkWithoutACritical)
{
    EXPECT_FALSE(link_chain({nullptr, filter_.get()}));
    EXPECT_FALSE(link_chain({source_.get(), nullptr, sink_.get()}));
    EXPECT_FALSE(link_steps({{nullptr, sink_.get(), "Failed."}}));
    EXPECT_EQ(all_log_lines(), (Lines{"E Failed."}));
}

TEST_F(Linking, StepsEndAtTheFirstFailureWithItsLine)
{
    EXPECT_FALSE(link_steps({{source_.get(), filter_.get(), "First."},
                             {sink_.get(), filter_.get(), "Second %s."},
                             {filter_.get(), sink_.get(), "Third."}}));
    EXPECT_EQ(all_log_lines(), (Lines{"E Second %s."}));
    EXPECT_EQ(chain_from(source_.get()), (Lines{"fakesrc", "identity"})) << "the third is not linked";
}

} // namespace

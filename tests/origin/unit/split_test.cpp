// What a split stream's branches are made of.
#include "Elements.h"
#include "PrintedText.h"
#include "RecordedLog.h"
#include "StreamBuild.h"

#include <gtest/gtest.h>

using namespace Quorvis::VelStream;
using namespace velstream::testing;

namespace {

using Lines = std::vector<std::string>;

constexpr const char* kH264Rtp = "application/x-rtp,media=video,clock-rate=90000,encoding-name=H264,payload=96";
constexpr const char* kH265Rtp = "application/x-rtp,media=video,clock-rate=90000,encoding-name=H265,payload=96";

class ProcessingBranchTest : public WithGStreamer {
protected:
    const ElementPtr pipeline_ = share(gst_pipeline_new("split"));
    PiplineData data_;
    ProcessingBranch branch_;
    const PrintedText printed_;
};

TEST_F(ProcessingBranchTest, ElementsAreLinkedInOrder)
{
    ASSERT_TRUE(setup_processing_branch(pipeline_.get(), &data_, branch_));
    EXPECT_EQ(factories_in(pipeline_.get()), (Lines{"capsfilter", "capsfilter", "qtivtransform", "qtivtransform"}));
    EXPECT_EQ(chain_from(branch_.input), (Lines{"qtivtransform", "capsfilter", "qtivtransform", "capsfilter"}));
    EXPECT_TRUE(has_caps(branch_.rgb_filter, "video/x-raw,format=RGB"));
    EXPECT_TRUE(has_caps(branch_.output, "video/x-raw(memory:GBM),format=NV12,colorimetry=bt601"));
    EXPECT_EQ(factory_of(branch_.transform), "qtivtransform");
    EXPECT_NE(branch_.input, branch_.transform);
    EXPECT_EQ(PrintedText::error() + PrintedText::out(), "");
}

TEST_F(ProcessingBranchTest, TwoBranchesFitIntoOnePipeline)
{
    ProcessingBranch second;
    EXPECT_TRUE(setup_processing_branch(pipeline_.get(), &data_, branch_));
    EXPECT_TRUE(setup_processing_branch(pipeline_.get(), &data_, second));
    EXPECT_NE(branch_.input, second.input);
}

TEST_F(ProcessingBranchTest, FrameBehindTheRgbFilterGoesThroughTheCameraTap)
{
    ASSERT_TRUE(setup_processing_branch(pipeline_.get(), &data_, branch_));
    int calls = 0;
    data_.streamId = "branch";
    data_.callback = [&calls](const Image&) {
        ++calls;
        return int8_t{0};
    };
    gst_element_set_state(branch_.output, GST_STATE_PAUSED);
    gst_element_set_state(branch_.transform, GST_STATE_PAUSED);
    const PadPtr source(gst_element_get_static_pad(branch_.rgb_filter, "src"));
    gst_pad_set_active(source.get(), TRUE);
    set_pad_caps(source.get(), "video/x-raw,format=RGB,width=4,height=2");
    GstSegment segment;
    gst_segment_init(&segment, GST_FORMAT_TIME);
    gst_pad_push_event(source.get(), gst_event_new_segment(&segment));
    gst_pad_push(source.get(), gst_buffer_new_allocate(nullptr, 24, nullptr));
    gst_element_set_state(branch_.transform, GST_STATE_NULL);
    gst_element_set_state(branch_.output, GST_STATE_NULL);
    EXPECT_EQ(calls, 1);
    EXPECT_TRUE(log_has("I START: on_buffer_received_v4l2 - ############################################ idx: 1"));
}

TEST_F(ProcessingBranchTest, MissingElementIsPrinted)
{
    for (const char* factory : {"qtivtransform", "capsfilter"}) {
        const WithoutElement without(factory);
        PrintedText::error().clear();
        EXPECT_FALSE(setup_processing_branch(pipeline_.get(), &data_, branch_));
        EXPECT_EQ(PrintedText::error(), "Failed to create processing elements.\n") << factory;
    }
    EXPECT_EQ(factories_in(pipeline_.get()), Lines{});
}

TEST_F(ProcessingBranchTest, ChainThatDoesNotLinkIsPrinted)
{
    const ElementStandIn sink_only("qtivtransform", "fakesink");
    EXPECT_FALSE(setup_processing_branch(pipeline_.get(), &data_, branch_));
    EXPECT_EQ(PrintedText::error(), "Failed to link processing branch.\n");
}

// ---- A camera's new pad

class OnPadAdded : public WithGStreamer {
protected:
    const ElementPtr depay_ = share(gst_element_factory_make("rtph264depay", nullptr));
    const PrintedText printed_;
};

TEST_F(OnPadAdded, LinksTheFirstPad)
{
    const PadPtr pad = make_source_pad("recv_rtp_src_0", kH264Rtp);
    on_pad_added(nullptr, pad.get(), depay_.get());
    EXPECT_TRUE(is_linked_to(pad.get(), depay_.get()));
    EXPECT_EQ(PrintedText::out(), "Linked rtspsrc to rtph264depay\n");
    EXPECT_EQ(PrintedText::error(), "");
}

TEST_F(OnPadAdded, LeavesALinkedDepayloaderAlone)
{
    const PadPtr first = make_source_pad("first", kH264Rtp);
    const PadPtr second = make_source_pad("second", kH264Rtp);
    on_pad_added(nullptr, first.get(), depay_.get());
    PrintedText::out().clear();
    on_pad_added(nullptr, second.get(), depay_.get());
    EXPECT_TRUE(is_linked_to(first.get(), depay_.get()));
    EXPECT_FALSE(gst_pad_is_linked(second.get()));
    EXPECT_EQ(PrintedText::out(), "Pad already linked\n");
    EXPECT_EQ(PrintedText::error(), "");
}

TEST_F(OnPadAdded, PrintsAFailedLink)
{
    const PadPtr pad = make_source_pad("pad", kH265Rtp);
    on_pad_added(nullptr, pad.get(), depay_.get());
    EXPECT_FALSE(gst_pad_is_linked(pad.get()));
    EXPECT_EQ(PrintedText::out(), "");
    EXPECT_EQ(PrintedText::error(), "Failed to link rtspsrc to rtph264depay\n");
}

TEST_F(OnPadAdded, TextsNameH264WhateverTheElementsAre)
{
    const ElementPtr h265 = share(gst_element_factory_make("rtph265depay", nullptr));
    const PadPtr pad = make_source_pad("pad", kH265Rtp);
    on_pad_added(nullptr, pad.get(), h265.get());
    EXPECT_TRUE(is_linked_to(pad.get(), h265.get()));
    EXPECT_EQ(PrintedText::out(), "Linked rtspsrc to rtph264depay\n");
}

TEST_F(OnPadAdded, HoldsNoReference)
{
    const PadPtr sink(gst_element_get_static_pad(depay_.get(), "sink"));
    const PadPtr pad = make_source_pad("pad", kH265Rtp);
    const int before = reference_count(sink.get());
    on_pad_added(nullptr, pad.get(), depay_.get());
    EXPECT_EQ(reference_count(sink.get()), before);
    EXPECT_EQ(reference_count(pad.get()), 1);
}

// ---- Caps of a transform

class CapsForTransform : public WithGStreamer {
protected:
    void give(const char* caps)
    {
        const PadPtr pad(gst_element_get_static_pad(element_.get(), "src"));
        gst_pad_set_active(pad.get(), TRUE);
        set_pad_caps(pad.get(), caps);
    }
    const ElementPtr element_ = share(gst_element_factory_make("identity", nullptr));
};

TEST_F(CapsForTransform, LogsSizeAndFormat)
{
    give("video/x-raw,format=RGB,width=4,height=2");
    get_caps_for_qtivtransform(element_.get());
    EXPECT_EQ(log_lines(), (Lines{"I get_caps_for_qtivtransform width: 4, height: 2",
                                  "I get_caps_for_qtivtransform - Format: RGB"}));
}

TEST_F(CapsForTransform, LogsWhatIsMissing)
{
    give("video/x-raw,width=4");
    get_caps_for_qtivtransform(element_.get());
    EXPECT_EQ(log_lines(), (Lines{"E Failed to retrieve width and height.", "E Failed to retrieve the format."}));
}

TEST_F(CapsForTransform, LogsAnElementWithoutSourcePad)
{
    const ElementPtr sink = share(gst_element_factory_make("fakesink", nullptr));
    get_caps_for_qtivtransform(sink.get());
    EXPECT_EQ(log_lines(), (Lines{"E Failed to get the pad from qtivtransform."}));
}

TEST_F(CapsForTransform, GivesUpAfterTenMisses)
{
    get_caps_for_qtivtransform(element_.get());
    Lines expected(10, "I Caps not available yet, retrying...");
    expected.push_back("E Failed to get caps from pad.");
    EXPECT_EQ(log_lines(), expected);
}

TEST_F(CapsForTransform, ReleasesCapsAndPad)
{
    give("video/x-raw,format=RGB,width=4,height=2");
    const PadPtr pad(gst_element_get_static_pad(element_.get(), "src"));
    const CapsPtr caps(gst_pad_get_current_caps(pad.get()));
    const int pad_before = reference_count(pad.get());
    const int caps_before = GST_MINI_OBJECT_REFCOUNT_VALUE(caps.get());
    get_caps_for_qtivtransform(element_.get());
    EXPECT_EQ(reference_count(pad.get()), pad_before);
    EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(caps.get()), caps_before);
}

} // namespace

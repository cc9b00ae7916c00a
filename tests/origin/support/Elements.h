// Looking into elements, bins and pads, and changing which elements a process can make.
#pragma once

#include "Handles.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velstream::testing {

using Quorvis::VelStream::CapsPtr;
using Quorvis::VelStream::ElementPtr;
using Quorvis::VelStream::PadPtr;
using Quorvis::VelStream::share;

/// Tests that make elements: initialises GStreamer before the library does.
class WithGStreamer : public ::testing::Test {
protected:
    static void SetUpTestSuite() { gst_init(nullptr, nullptr); }
};

std::string factory_of(GstElement* element);
std::string name_of(GstElement* element);
/// Owned; null when the bin has no element of that name.
ElementPtr child(GstElement* bin, const std::string& name);
/// The first child made by a factory; null when there is none.
ElementPtr child_of_factory(GstElement* bin, const std::string& factory);
/// The child of a bin that has one; null for more or none.
ElementPtr only_child(GstElement* bin);
/// Factories of a bin's direct children, sorted.
std::vector<std::string> factories_in(GstElement* bin);

/// "factory" or, for elements that were given a name, "factory:name".
std::string label_of(GstElement* element);
/// Labels from an element along the first linked source pads to the end of the chain. A bin is one element.
std::vector<std::string> chain_from(GstElement* element);
/// Labels of what a bin's ghost "sink" pad leads to, to the end of the chain.
std::vector<std::string> chain_from_ghost_sink(GstElement* bin);
/// Labels of what leads to a bin's ghost "src" pad, in the direction of the data.
std::vector<std::string> chain_to_ghost_src(GstElement* bin);

/// A bin's only pad is this one: a ghost, and active.
void expect_one_active_ghost(GstElement* bin, const char* name);

bool has_property(gpointer object, const std::string& name);
/// Value of a number, boolean, enum or flags property.
long number_of(gpointer object, const std::string& name);
/// Value of a string property.
std::string text_of(gpointer object, const std::string& name);
/// True when an object's "caps" are these.
bool has_caps(GstElement* filter, const std::string& caps);

/// A floating source pad that carries these caps, active and without template: links to it see just these.
PadPtr make_source_pad(const std::string& name, const std::string& caps);
void set_pad_caps(GstPad* pad, const std::string& caps);
bool is_linked_to(GstPad* pad, GstElement* element, const char* sink_pad = "sink");
int reference_count(gpointer object);

/// From now on the results of all links of pads that are tried in this process are kept. Once a process.
void record_pad_links();
/// The results since then, in order.
std::vector<GstPadLinkReturn> pad_link_results();

/// Hides an element from the process for the life of the object, as on a machine that lacks it.
class WithoutElement {
public:
    explicit WithoutElement(const std::string& factory);
    ~WithoutElement();
    WithoutElement(const WithoutElement&) = delete;
    WithoutElement& operator=(const WithoutElement&) = delete;

private:
    GstPluginFeature* feature_;
};

/// Makes a factory name stand for another type for the life of the object.
class ElementStandIn {
public:
    ElementStandIn(const std::string& factory, GType type);
    ElementStandIn(const std::string& factory, const std::string& other_factory);
    ~ElementStandIn();
    ElementStandIn(const ElementStandIn&) = delete;
    ElementStandIn& operator=(const ElementStandIn&) = delete;

private:
    WithoutElement hidden_;
    std::string factory_;
};

/// Loads the software elements, so that "waylandsink" is the platform's.
void load_software_elements();

/// Type of a sink with the properties "x", "y", "width" and "height" that needs no display.
GType window_sink_type();

} // namespace velstream::testing

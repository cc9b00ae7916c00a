// "qtivsplit": one stream in, and on each source pad the same stream in a size and format of its own.
#include "elements.h"
#include "software_handles.h"
#include "split_branch.h"
#include "video_properties.h"
#include "vtransform_caps.h"

#include <algorithm>
#include <string>
#include <vector>

namespace velstream::software {

namespace {

enum Property : guint { kEngine = 1 };
enum PadProperty : guint { kMode = 1 };

constexpr GEnumValue kModes[] = {{0, "Every frame", "none"}, {0, nullptr, nullptr}};

struct VelSplitPad {
    GstPad parent;
    SplitBranch* branch; ///< owned
};

struct VelSplitPadClass {
    GstPadClass parent_class;
};

/// Keeps the branch's pad, and the branch with it.
using BranchHold = std::shared_ptr<SplitBranch>;

struct SplitState {
    int engine = kDefaultEngine; ///< guarded by the object lock

    std::mutex mutex; ///< guards `branches` and `sticky`; nothing is pushed while it is held
    std::vector<BranchHold> branches;
    std::vector<EventPtr> sticky; ///< what a new branch has to hear first, in order

    std::vector<BranchHold> frame_branches; ///< of the frame under way; the sink pad's thread only
};

struct VelSplit {
    GstElement parent;
    GstPad* sink;      ///< borrowed from the element
    SplitState* state; ///< owned
};

struct VelSplitClass {
    GstElementClass parent_class;
};

GType vel_split_get_type();
GType vel_split_pad_get_type();
G_DEFINE_TYPE(VelSplit, vel_split, GST_TYPE_ELEMENT)
G_DEFINE_TYPE(VelSplitPad, vel_split_pad, GST_TYPE_PAD)

VelSplit* self_of(gpointer object)
{
    return static_cast<VelSplit*>(object);
}

SplitState& state_of(gpointer object)
{
    return *self_of(object)->state;
}

SplitBranch* branch_of(gpointer pad)
{
    return static_cast<VelSplitPad*>(pad)->branch;
}

BranchHold hold_branch(GstPad* pad)
{
    gst_object_ref(pad);
    return BranchHold(branch_of(pad), [](SplitBranch* branch) { gst_object_unref(branch->pad()); });
}

std::vector<BranchHold> current_branches(SplitState& state)
{
    const std::lock_guard lock(state.mutex);
    return state.branches;
}

// ---- Source pads
// ---------------------------------------------------------------------------------------------------------------

void branch_task(gpointer pad)
{
    branch_of(pad)->handle_one();
}

gboolean activate_branch(GstPad* pad, GstObject*, GstPadMode mode, gboolean is_active)
{
    if (mode != GST_PAD_MODE_PUSH) return FALSE;
    if (!is_active) {
        branch_of(pad)->close();
        return gst_pad_stop_task(pad);
    }
    branch_of(pad)->open();
    return gst_pad_start_task(pad, branch_task, pad, nullptr);
}

void note_link(GstPad* pad, GstPad*, gpointer)
{
    branch_of(pad)->set_linked(true);
}

void note_unlink(GstPad* pad, GstPad*, gpointer)
{
    branch_of(pad)->set_linked(false);
}

/// One branch's lack of time must not thin out the frames of the others.
gboolean src_event(GstPad* pad, GstObject* parent, GstEvent* event)
{
    if (GST_EVENT_TYPE(event) != GST_EVENT_QOS) return gst_pad_event_default(pad, parent, event);
    gst_event_unref(event);
    return TRUE;
}

/// What the branch can make of what comes in.
CapsPtr branch_caps(VelSplit* self)
{
    CapsPtr input(gst_pad_get_current_caps(self->sink));
    if (!input) input.reset(gst_pad_peer_query_caps(self->sink, nullptr));
    const CapsPtr own(gst_pad_get_pad_template_caps(self->sink));
    const CapsPtr usable(gst_caps_intersect_full(input.get(), own.get(), GST_CAPS_INTERSECT_FIRST));
    return CapsPtr(make_other_caps(usable.get(), nullptr));
}

void answer_caps(GstQuery* query, CapsPtr caps)
{
    GstCaps* filter = nullptr;
    gst_query_parse_caps(query, &filter);
    if (filter) caps.reset(gst_caps_intersect_full(filter, caps.get(), GST_CAPS_INTERSECT_FIRST));
    gst_query_set_caps_result(query, caps.get());
}

gboolean src_query(GstPad* pad, GstObject* parent, GstQuery* query)
{
    if (GST_QUERY_TYPE(query) != GST_QUERY_CAPS) return gst_pad_query_default(pad, parent, query);
    answer_caps(query, branch_caps(self_of(parent)));
    return TRUE;
}

// ---- Sink pad
// ------------------------------------------------------------------------------------------------------------------

/// Not linked where nobody takes frames, at the end where everybody is; a branch that failed ends the stream.
GstFlowReturn combined_flow(const std::vector<BranchHold>& branches)
{
    bool is_any_linked = false;
    bool are_all_at_end = !branches.empty();
    for (const auto& branch : branches) {
        const GstFlowReturn flow = branch->flow();
        if (flow <= GST_FLOW_NOT_NEGOTIATED) return flow;
        are_all_at_end &= flow == GST_FLOW_EOS;
        is_any_linked |= gst_pad_is_linked(branch->pad()) != FALSE;
    }
    if (are_all_at_end) return GST_FLOW_EOS;
    return is_any_linked ? GST_FLOW_OK : GST_FLOW_NOT_LINKED;
}

GstFlowReturn sink_chain(GstPad*, GstObject* parent, GstBuffer* buffer)
{
    const BufferPtr frame(buffer);
    SplitState& state = state_of(parent);
    {
        const std::lock_guard lock(state.mutex);
        state.frame_branches.assign(state.branches.begin(), state.branches.end());
    }
    for (const auto& branch : state.frame_branches)
        branch->put_frame(frame.get());
    const GstFlowReturn flow = combined_flow(state.frame_branches);
    state.frame_branches.clear();
    return flow;
}

/// Each branch is a stream of its own.
EventPtr event_of_branch(GstEvent* event, const SplitBranch& branch)
{
    if (GST_EVENT_TYPE(event) != GST_EVENT_STREAM_START) return EventPtr(gst_event_ref(event));
    const gchar* id = nullptr;
    gst_event_parse_stream_start(event, &id);
    EventPtr own(gst_event_new_stream_start((std::string(id) + "/" + GST_PAD_NAME(branch.pad())).c_str()));
    gst_event_set_seqnum(own.get(), gst_event_get_seqnum(event));
    guint group = 0;
    if (gst_event_parse_group_id(event, &group)) gst_event_set_group_id(own.get(), group);
    GstStreamFlags flags{};
    gst_event_parse_stream_flags(event, &flags);
    gst_event_set_stream_flags(own.get(), flags);
    return own;
}

void remember_sticky(SplitState& state, GstEvent* event)
{
    if (!GST_EVENT_IS_STICKY(event)) return;
    const bool may_be_many = gst_event_type_get_flags(GST_EVENT_TYPE(event)) & GST_EVENT_TYPE_STICKY_MULTI;
    const auto old = std::find_if(state.sticky.begin(), state.sticky.end(), [event](const EventPtr& known) {
        return GST_EVENT_TYPE(known.get()) == GST_EVENT_TYPE(event);
    });
    if (old != state.sticky.end() && !may_be_many)
        old->reset(gst_event_ref(event));
    else
        state.sticky.emplace_back(gst_event_ref(event));
}

void forget_sticky(SplitState& state, std::initializer_list<GstEventType> types)
{
    std::erase_if(state.sticky, [types](const EventPtr& event) {
        return std::find(types.begin(), types.end(), GST_EVENT_TYPE(event.get())) != types.end();
    });
}

/// A branch that failed after its last frame's successor was taken: nobody upstream would hear of it.
void report_failure(VelSplit* self, GstFlowReturn flow)
{
    if (flow <= GST_FLOW_NOT_NEGOTIATED) GST_ELEMENT_FLOW_ERROR(self, flow);
}

gboolean put_event_to_all(VelSplit* self, EventPtr event)
{
    SplitState& state = *self->state;
    const std::lock_guard lock(state.mutex);
    if (GST_EVENT_TYPE(event.get()) == GST_EVENT_STREAM_START) state.sticky.clear();
    remember_sticky(state, event.get());
    for (const auto& branch : state.branches)
        branch->put_event(event_of_branch(event.get(), *branch));
    return TRUE;
}

gboolean start_flush(VelSplit* self, const EventPtr& event)
{
    for (const auto& branch : current_branches(*self->state)) {
        branch->close();
        gst_pad_push_event(branch->pad(), gst_event_ref(event.get()));
        gst_pad_pause_task(branch->pad());
    }
    return TRUE;
}

gboolean stop_flush(VelSplit* self, const EventPtr& event)
{
    SplitState& state = *self->state;
    {
        const std::lock_guard lock(state.mutex);
        forget_sticky(state, {GST_EVENT_SEGMENT, GST_EVENT_EOS});
    }
    for (const auto& branch : current_branches(state)) {
        gst_pad_push_event(branch->pad(), gst_event_ref(event.get()));
        if (!gst_pad_is_active(branch->pad())) continue;
        branch->open();
        gst_pad_start_task(branch->pad(), branch_task, branch->pad(), nullptr);
    }
    return TRUE;
}

gboolean sink_event(GstPad*, GstObject* parent, GstEvent* taken)
{
    EventPtr event(taken);
    VelSplit* self = self_of(parent);
    switch (GST_EVENT_TYPE(taken)) {
    case GST_EVENT_FLUSH_START:
        return start_flush(self, event);
    case GST_EVENT_FLUSH_STOP:
        return stop_flush(self, event);
    case GST_EVENT_EOS:
        report_failure(self, combined_flow(current_branches(*self->state)));
        return put_event_to_all(self, std::move(event));
    default:
        return put_event_to_all(self, std::move(event));
    }
}

/// What every linked branch can be made from.
CapsPtr acceptable_caps(VelSplit* self)
{
    CapsPtr caps(gst_pad_get_pad_template_caps(self->sink));
    for (const auto& branch : current_branches(*self->state)) {
        if (!gst_pad_is_linked(branch->pad())) continue;
        const CapsPtr wanted(gst_pad_peer_query_caps(branch->pad(), nullptr));
        const CapsPtr own(gst_pad_get_pad_template_caps(branch->pad()));
        const CapsPtr usable(gst_caps_intersect_full(wanted.get(), own.get(), GST_CAPS_INTERSECT_FIRST));
        const CapsPtr sources(make_other_caps(usable.get(), nullptr));
        caps.reset(gst_caps_intersect_full(caps.get(), sources.get(), GST_CAPS_INTERSECT_FIRST));
    }
    return caps;
}

/// Frames wait in the branches: whoever lends them from a pool has to have a few more.
gboolean propose_allocation(GstQuery* query)
{
    constexpr guint kHeldFrames = 4;
    GstCaps* caps = nullptr;
    gst_query_parse_allocation(query, &caps, nullptr);
    GstVideoInfo info;
    if (!caps || !gst_video_info_from_caps(&info, caps)) return FALSE;
    gst_query_add_allocation_pool(query, nullptr, static_cast<guint>(GST_VIDEO_INFO_SIZE(&info)), kHeldFrames, 0);
    gst_query_add_allocation_meta(query, GST_VIDEO_META_API_TYPE, nullptr);
    return TRUE;
}

gboolean sink_query(GstPad* pad, GstObject* parent, GstQuery* query)
{
    switch (GST_QUERY_TYPE(query)) {
    case GST_QUERY_CAPS:
        answer_caps(query, acceptable_caps(self_of(parent)));
        return TRUE;
    case GST_QUERY_ALLOCATION:
        return propose_allocation(query);
    default:
        return gst_pad_query_default(pad, parent, query);
    }
}

gboolean activate_sink(GstPad*, GstObject* parent, GstPadMode mode, gboolean is_active)
{
    if (mode != GST_PAD_MODE_PUSH) return FALSE;
    if (is_active) return TRUE;
    // A thread that waits for room gives up: every branch is closed before, with the source pads.
    SplitState& state = state_of(parent);
    const std::lock_guard lock(state.mutex);
    state.sticky.clear();
    return TRUE;
}

// ---- The element
// ---------------------------------------------------------------------------------------------------------------

/// The wanted name, or the first one that is free; empty: it is taken.
std::string choose_pad_name(GstElement* element, const gchar* wanted)
{
    const auto is_taken = [element](const std::string& name) {
        return PadPtr(gst_element_get_static_pad(element, name.c_str())) != nullptr;
    };
    if (wanted && *wanted) return is_taken(wanted) ? "" : wanted;
    for (unsigned index = 0;; ++index) {
        std::string name = "src_" + std::to_string(index);
        if (!is_taken(name)) return name;
    }
}

GstPad* make_src_pad(GstPadTemplate* pad_template, const std::string& name)
{
    auto* pad = GST_PAD(g_object_new(vel_split_pad_get_type(), "name", name.c_str(), "direction", GST_PAD_SRC,
                                     "template", pad_template, nullptr));
    gst_pad_set_activatemode_function(pad, activate_branch);
    g_signal_connect(pad, "linked", G_CALLBACK(note_link), nullptr);
    g_signal_connect(pad, "unlinked", G_CALLBACK(note_unlink), nullptr);
    gst_pad_set_event_function(pad, src_event);
    gst_pad_set_query_function(pad, src_query);
    return pad;
}

/// A branch that comes late hears first what the others have heard.
void join(VelSplit* self, const BranchHold& branch)
{
    SplitState& state = *self->state;
    const std::lock_guard lock(state.mutex);
    for (const EventPtr& event : state.sticky)
        branch->put_event(event_of_branch(event.get(), *branch));
    state.branches.push_back(branch);
}

GstPad* request_new_pad(GstElement* element, GstPadTemplate* pad_template, const gchar* wanted, const GstCaps*)
{
    const std::string name = choose_pad_name(element, wanted);
    if (name.empty()) {
        GST_WARNING_OBJECT(element, "pad %s is there already", wanted);
        return nullptr;
    }
    GstPad* pad = make_src_pad(pad_template, name);
    gst_pad_set_active(pad, GST_STATE(element) > GST_STATE_READY || GST_STATE_TARGET(element) > GST_STATE_READY);
    const BranchHold branch = hold_branch(pad);
    if (!gst_element_add_pad(element, pad)) return nullptr;
    join(self_of(element), branch);
    return pad;
}

void release_pad(GstElement* element, GstPad* pad)
{
    SplitState& state = state_of(element);
    const BranchHold branch = hold_branch(pad);
    {
        const std::lock_guard lock(state.mutex);
        std::erase_if(state.branches, [&branch](const BranchHold& known) { return known.get() == branch.get(); });
    }
    gst_pad_set_active(pad, FALSE);
    gst_element_remove_pad(element, pad);
}

void set_property(GObject* object, guint id, const GValue* value, GParamSpec* pspec)
{
    if (id != kEngine) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    GST_OBJECT_LOCK(object);
    state_of(object).engine = g_value_get_enum(value);
    GST_OBJECT_UNLOCK(object);
}

void get_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    if (id != kEngine) {
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
        return;
    }
    GST_OBJECT_LOCK(object);
    g_value_set_enum(value, state_of(object).engine);
    GST_OBJECT_UNLOCK(object);
}

void finalize_split(GObject* object)
{
    delete self_of(object)->state;
    G_OBJECT_CLASS(vel_split_parent_class)->finalize(object);
}

void vel_split_init(VelSplit* self)
{
    self->state = new SplitState;
    GstPadTemplate* pad_template = gst_element_class_get_pad_template(GST_ELEMENT_GET_CLASS(self), "sink");
    self->sink = gst_pad_new_from_template(pad_template, "sink");
    gst_pad_set_chain_function(self->sink, sink_chain);
    gst_pad_set_event_function(self->sink, sink_event);
    gst_pad_set_query_function(self->sink, sink_query);
    gst_pad_set_activatemode_function(self->sink, activate_sink);
    gst_element_add_pad(GST_ELEMENT(self), self->sink);
}

void vel_split_class_init(VelSplitClass* klass)
{
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_property;
    object_class->get_property = get_property;
    object_class->finalize = finalize_split;
    constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(object_class, kEngine,
                                    g_param_spec_enum("engine", "Engine",
                                                      "Backend of the platform; all convert alike here", engine_type(),
                                                      kDefaultEngine, flags));
    GstElementClass* element_class = GST_ELEMENT_CLASS(klass);
    element_class->request_new_pad = request_new_pad;
    element_class->release_pad = release_pad;
    const CapsPtr caps(make_template_caps());
    gst_element_class_add_pad_template(element_class,
                                       gst_pad_template_new("sink", GST_PAD_SINK, GST_PAD_ALWAYS, caps.get()));
    gst_element_class_add_pad_template(
        element_class,
        gst_pad_template_new_with_gtype("src_%u", GST_PAD_SRC, GST_PAD_REQUEST, caps.get(), vel_split_pad_get_type()));
    gst_element_class_set_static_metadata(element_class, "Video split", "Filter/Converter/Video/Scaler",
                                          "Hands each frame to every source pad, in that pad's size and format",
                                          "velstream-gst");
}

/// Regions of interest are not cut out here: each pad has every whole frame, the one mode there is.
void set_pad_property(GObject* object, guint id, const GValue*, GParamSpec* pspec)
{
    if (id != kMode) G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void get_pad_property(GObject* object, guint id, GValue* value, GParamSpec* pspec)
{
    if (id == kMode)
        g_value_set_enum(value, 0);
    else
        G_OBJECT_WARN_INVALID_PROPERTY_ID(object, id, pspec);
}

void finalize_pad(GObject* object)
{
    delete reinterpret_cast<VelSplitPad*>(object)->branch;
    G_OBJECT_CLASS(vel_split_pad_parent_class)->finalize(object);
}

void vel_split_pad_init(VelSplitPad* self)
{
    self->branch = new SplitBranch(GST_PAD(self));
}

void vel_split_pad_class_init(VelSplitPadClass* klass)
{
    static const GType mode_type = g_enum_register_static("VelSplitMode", kModes);
    GObjectClass* object_class = G_OBJECT_CLASS(klass);
    object_class->set_property = set_pad_property;
    object_class->get_property = get_pad_property;
    object_class->finalize = finalize_pad;
    constexpr auto flags = static_cast<GParamFlags>(G_PARAM_READWRITE | G_PARAM_STATIC_STRINGS);
    g_object_class_install_property(
        object_class, kMode, g_param_spec_enum("mode", "Mode", "Which frames the pad delivers", mode_type, 0, flags));
}

} // namespace

gboolean register_split(GstPlugin* plugin)
{
    return gst_element_register(plugin, "qtivsplit", GST_RANK_NONE, vel_split_get_type());
}

} // namespace velstream::software

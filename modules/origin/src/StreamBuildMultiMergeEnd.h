// How the end of stream comes through a composition, and what is seen of it.
#pragma once

#include "Handles.h"

#include <atomic>
#include <memory>
#include <string>

namespace Quorvis::VelStream {

/// What is known of a composition's file. Streaming threads write it.
class RecordingState {
public:
    /// A picture has come to the muxer: false when it is refused.
    bool begin();
    /// True when no picture has come; from then on the muxer gets none.
    bool refuse();
    bool has_begun() const { return phase_ == Phase::kBegun; }

    std::atomic<bool> is_complete{false}; ///< The muxer has written its index.

private:
    enum class Phase { kWaiting, kBegun, kRefused };

    /// Leaves the first phase for this one, which holds for good. True when it is in it.
    bool enter(Phase phase);

    std::atomic<Phase> phase_{Phase::kWaiting};
};

/// Logs the end of stream where it passes a composition's named elements.
void add_end_probes(GstElement* pipeline);

/// Follows the muxer of a composition; a pipeline without one leaves the state as it is.
void follow_recording(GstElement* pipeline, const std::shared_ptr<RecordingState>& state);

/// What a fragment of the recording holds is on the disk once the fragment is complete, and a recording whose
/// description has no fragments gets them until its end, when the muxer puts an ordinary file in their place: what ends
/// the process, or a full disk, costs the last fragment and not the file. A pipeline without a muxer is passed over.
void secure_recording(GstElement* pipeline);

/// The file that a composition has opened to record into. Empty when it has opened none.
std::string open_recording(GstElement* pipeline);

/// True when nothing is written to the recording any more, while other elements may be up still.
bool is_recording_closed(GstElement* pipeline);

/// Removes the file of a recording that got no picture: no player takes one. Only what is an ordinary file is removed.
void remove_recording(const std::string& path);

/// A description without a file's address takes the next option for the name of one: such a recording goes nowhere.
void discard_recording(GstElement* pipeline);

/// Logs each element that can be given an end of stream at its input, and gives it to those that nothing leads to: a
/// camera that never answered sends none. The others get it with the data. Null: nothing is logged.
void force_end(GstElement* pipeline);

/// The same without a word.
void end_unfed_inputs(GstElement* pipeline);

/// For an end that does not come through: gives it to the input of every element but the sinks, whose end would shut
/// out what the muxer has yet to write.
void force_end_everywhere(GstElement* pipeline);

/// The element that keeps a pipeline from coming down; null when there is none any more.
ElementPtr find_stuck_element(GstElement* pipeline);

} // namespace Quorvis::VelStream

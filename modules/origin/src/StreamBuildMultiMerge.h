// Four cameras on one canvas: one pipeline, written as a launch description, that is recorded, pushed and searched for
// objects. One composition a process.
#pragma once

#include "StreamRecords.h"

#include <gst/gst.h>

#include <string>

/**
 * The optional properties of the canvas's pad `index`: crop and flips of that input, each only where it has a value.
 * @return empty for an input with none of them, and for one that is not in the list.
 */
std::string build_sink_properties(const Quorvis::VelStream::StreamProperty& prop, int index);

/**
 * The launch description of a composition. The texts go in as they are: one with a quote or a blank in it breaks the
 * description.
 * @param prop     four inputs; of fewer, those that there are. Codec and canvas are those of the first.
 * @param use_tee  false: recorded and nothing else. True: what `mode` says, with overlays and detection.
 * @param mode     0 recorded; 1 recorded and pushed; 2 pushed; anything else: neither, which does not launch.
 */
std::string get_4_cameras_launch_command(const Quorvis::VelStream::StreamProperty& prop, bool use_tee, int mode);

/**
 * Runs a composition and blocks until every camera has ended (and 5 s more), one fails, or stop_multi_merge() is
 * called. Parameters as above. A recording gets its index whatever ended the run, and one without a picture is removed.
 * Sets the environment's "WAYLAND_DISPLAY" and "XDG_RUNTIME_DIR".
 * @return 0 after a run, also one that failed: the log has the cause; -1 when it was not launched: no inputs, a
 *         description that cannot be built, or a composition that is running already.
 */
int start_stream_multi_merge(Quorvis::VelStream::StreamProperty prop, bool use_tee, int mode);

/**
 * Ends the composition, one that is just starting too: sends the end of stream to the cameras and, where no camera
 * answers, into the chains behind them. Waits until it has come through, at most 2.5 s; start_stream_multi_merge()
 * returns within a second of that, or of the pipeline's start, which loads the model. With nothing running it only
 * logs. Callable from any thread, not from a signal handler: it logs and takes locks.
 */
void stop_multi_merge();

/// Watch of a composition's bus: quits `loop`, a GMainLoop, on an error, and 5 s after the end of stream; a stop cuts
/// the 5 s short. @return TRUE, always.
gboolean bus_call(GstBus* bus, GstMessage* message, gpointer loop);

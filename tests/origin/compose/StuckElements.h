// Elements that wait for the test: they do not come down, as a client may whose server has fallen silent, or do not
// start.
#pragma once

#include "patience.h"

#include <glib-object.h>

#include <chrono>

namespace velstream::testing {

/// Holds every such element of the process until it is opened. Its end opens it, and waits until pushes and cameras
/// are gone.
class Gate {
public:
    Gate();
    ~Gate();
    static void open();
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;

    /// Waits until an element is held. @return false after the bound.
    static bool wait_until_held(std::chrono::seconds bound = kPatience);
};

/// Type of a push with a "location" that takes no more than this many buffers: the next one holds its thread, and its
/// way down, while there is a gate.
GType stuck_push_type(int buffers);

/// Type of a camera with a "location" that sends nothing and holds its way down likewise.
GType stuck_camera_type();

/// Type of the platform's element that runs models, whose start waits at the gate.
GType slow_model_type();

} // namespace velstream::testing

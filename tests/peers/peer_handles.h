// What the peers own.
#pragma once

#include "gst_handles.h"

#include <gst/sdp/gstsdpmessage.h>

namespace peers {

using namespace velstream::handles;

using SdpPtr = std::unique_ptr<GstSDPMessage, Releaser<gst_sdp_message_free>>;

} // namespace peers

// The one frame that the re-encoders share with the application's callback.
#pragma once

#include "StreamRecords.h"

namespace Quorvis::VelStream {

/// Made by the first init_share_mem_mp4() and never resized; the re-encoders take turns at it.
extern ShareMem g_share_memory_mp4;
/// Slot of the last frame that a re-encoder pushed: counts modulo `g_buffer_count`. Guarded as the registry is.
extern uint64_t buffer_index;

/**
 * Makes the shared frame: packed RGB of the size in `ins`, mid-grey. The first size stays for the life of the library.
 * A size that is no frame is logged and makes none.
 */
void init_share_mem_mp4(StreamIns& ins);

} // namespace Quorvis::VelStream

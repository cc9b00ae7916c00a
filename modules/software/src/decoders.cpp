#include "elements.h"

namespace velstream::software {

gboolean register_decoders(GstPlugin*) { return TRUE; }

} // namespace velstream::software

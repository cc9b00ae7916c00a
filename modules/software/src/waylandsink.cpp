#include "elements.h"

namespace velstream::software {

gboolean register_waylandsink(GstPlugin*) { return TRUE; }

} // namespace velstream::software

#include "elements.h"

namespace velstream::software {

gboolean register_vtransform(GstPlugin*) { return TRUE; }

} // namespace velstream::software

#include "elements.h"

namespace velstream::software {

gboolean register_encoders(GstPlugin*) { return TRUE; }

} // namespace velstream::software

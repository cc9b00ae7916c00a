// The switch that lets "waylandsink" answer like the platform's.
#pragma once

namespace velstream::software {

/**
 * Puts this platform's "waylandsink" in place of the stock one, in this process only; later calls do nothing. The
 * registry must be complete, so it is not for the time of a plug-in scan. Any thread.
 */
void activate_waylandsink();

} // namespace velstream::software

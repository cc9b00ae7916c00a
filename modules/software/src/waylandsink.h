// The switch that lets "waylandsink" answer like the platform's.
#pragma once

namespace velstream::software {

/**
 * Puts this platform's "waylandsink" in place of the stock one, in this process only, and loads the stock one, so that
 * every display made from then on is the platform's; later calls do nothing. Any thread, but neither from a plug-in
 * scan (the registry must be complete) nor from a plug-in's entry (GStreamer holds its lock for loading there).
 */
void prepare_waylandsink();

} // namespace velstream::software

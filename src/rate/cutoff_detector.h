// Finds the bandwidth of a source from a dB spectrum: scanning down from the
// top bin over the upper third, the first climb of 25 dB over the floor of
// the quiet top band marks the cutoff.
#pragma once

#include <cstdint>

namespace dsp {

// db holds `bins` levels covering 0 .. rate / 2. Returns the cutoff in Hz, a
// multiple of the bin width; the top bin's frequency when nothing rises.
float detectCutoff(const float* db, uint32_t bins, uint32_t rate);

} // namespace dsp

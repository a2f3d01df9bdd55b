// The waveshaper of the harmonic generator: an odd-symmetric, piecewise
// linear transfer curve kept as nodes sorted by x on [0, 1]. Shaping an input
// looks up |x| on the curve and restores the sign, so the curve bends both
// polarities alike and limits at full scale.
#pragma once

#include "core/owned_array.h"

#include <cstddef>
#include <cstdint>

namespace dsp {

struct CurveNode {
    float x;
    float y;
    float slope; // of the segment to the next node; 0 for the last node
};

class TransferCurve {
public:
    // Upper bound on the nodes of a built curve: both ends plus 63 samples.
    static constexpr size_t kMaxNodes = 65;

    TransferCurve() = default;
    TransferCurve(const TransferCurve&) = delete;
    TransferCurve& operator=(const TransferCurve&) = delete;

    // Replaces the curve by the quadratic Bezier from (0, 0) to (1, 1) whose
    // control point the bend h moves: 0 is the straight line, positive values
    // compress. The new curve is built before the old one goes, so a failed
    // allocation keeps the old curve and returns false.
    bool build(float harmonics);
    // out[i] = sign(in[i]) * curve(|in[i]|); in and out may be the same
    // buffer. The segment search starts at the node the previous sample
    // ended on. Without a curve the samples pass unchanged.
    void shape(const float* in, float* out, uint32_t n);

    bool isBuilt() const { return !nodes_.empty(); }
    size_t nodeCount() const { return nodes_.size(); }
    const CurveNode& node(size_t i) const { return nodes_[i]; }

private:
    NothrowVector<CurveNode> nodes_; // sorted by x, from (0, 0) to (1, 1)
    size_t cursor_ = 0;              // node the last sample was found on
};

} // namespace dsp

// The waveshaper of the harmonic generator: an odd-symmetric, piecewise
// linear transfer curve kept as a sorted list of nodes on [0, 1]. Shaping an
// input looks up |x| on the curve and restores the sign, so the curve bends
// both polarities alike and limits at full scale.
#pragma once

#include <cstdint>

namespace dsp {

struct CurveNode {
    float x;
    float y;
    float slope; // of the segment to next; 0 for the last node
    CurveNode* next;
    CurveNode* prev;
};

class TransferCurve {
public:
    // Upper bound on the nodes of a built curve: both ends plus 63 samples.
    static constexpr int32_t kMaxNodes = 65;

    TransferCurve() = default;
    ~TransferCurve();
    TransferCurve(const TransferCurve&) = delete;
    TransferCurve& operator=(const TransferCurve&) = delete;

    // Creates the straight line from (0, 0) to (1, 1) when no curve exists;
    // an existing curve is left alone. False when the nodes cannot be allocated.
    bool resetIdentity();
    // Replaces the curve by the quadratic Bezier from (0, 0) to (1, 1) whose
    // control point the bend h moves: 0 is the straight line, positive values
    // compress. The new curve is built before the old one is freed, so a failed
    // allocation keeps the old curve and returns false.
    bool build(float harmonics);
    // out[i] = sign(in[i]) * curve(|in[i]|); in and out may be the same
    // buffer. The segment search starts where the previous sample's ended.
    void shape(const float* in, float* out, uint32_t n);
    // Frees every node; the curve is then not ready.
    void clear();

    uint8_t ready = 0;
    CurveNode* head = nullptr;
    CurveNode* tail = nullptr;
    CurveNode* cursor = nullptr;
    int32_t count = 0;
};

} // namespace dsp

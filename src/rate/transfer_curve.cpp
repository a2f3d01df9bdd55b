#include "transfer_curve.h"

#include <cmath>
#include <cstring>

namespace dsp {

namespace {

constexpr double kQuarterPi = 0.7853981633974483;
constexpr int kCurveSamples = 64; // points at t = k / 64, k = 1 .. 63

// Slope of the segment from a to b, computed in double from the stored floats.
float segmentSlope(const CurveNode& a, const CurveNode& b) {
    return static_cast<float>((static_cast<double>(b.y) - a.y) / (static_cast<double>(b.x) - a.x));
}

double clampTo(double v, double lo, double hi) {
    return v < lo ? lo : (v > hi ? hi : v);
}

// Point k of the quadratic Bezier from (0, 0) to (1, 1) with control point
// (a, b), x limited to [0, 1] and y to [-1, 1].
CurveNode bezierPoint(int k, double a, double b) {
    const double t = static_cast<double>(k) / kCurveSamples;
    const float x = static_cast<float>(clampTo(2.0 * (1.0 - t) * t * a + t * t, 0.0, 1.0));
    const float y = static_cast<float>(clampTo(2.0 * (1.0 - t) * t * b + t * t, -1.0, 1.0));
    return CurveNode{x, y, 0.0f};
}

// Inserts a point after the last node whose x does not exceed it (searching
// back from the end) and updates the slopes on both sides. Points on an
// existing x are skipped; so is a point past the last node, which only a NaN
// bend produces.
void insertPoint(NothrowVector<CurveNode>& nodes, const CurveNode& point) {
    size_t p = nodes.size() - 1;
    while (nodes[p].x > point.x) {
        --p;
    }
    if (p + 1 == nodes.size() || point.x == nodes[p].x || point.x == nodes[p + 1].x) {
        return;
    }
    // Within the reserved capacity: no allocation.
    nodes.insert(nodes.begin() + static_cast<std::ptrdiff_t>(p) + 1, point);
    nodes[p + 1].slope = segmentSlope(nodes[p + 1], nodes[p + 2]);
    nodes[p].slope = segmentSlope(nodes[p], nodes[p + 1]);
}

} // namespace

bool TransferCurve::build(float harmonics) {
    NothrowVector<CurveNode> nodes;
    if (!tryReserve(nodes, kMaxNodes)) {
        return false;
    }
    // The straight line from (0, 0) to (1, 1), then the sampled points.
    nodes.push_back(CurveNode{0.0f, 0.0f, 1.0f});
    nodes.push_back(CurveNode{1.0f, 1.0f, 0.0f});
    const double h = harmonics;
    const double a = 0.5 - h * std::cos(kQuarterPi);
    const double b = 0.5 + h * std::sin(kQuarterPi);
    for (int k = 1; k < kCurveSamples; ++k) {
        insertPoint(nodes, bezierPoint(k, a, b));
    }
    nodes_.swap(nodes);
    cursor_ = nodes_.size() - 1;
    return true;
}

void TransferCurve::shape(const float* in, float* out, uint32_t n) {
    if (!isBuilt()) {
        if (in != out) {
            std::memmove(out, in, static_cast<size_t>(n) * sizeof(float));
        }
        return;
    }
    const CurveNode* nodes = nodes_.data();
    const size_t last = nodes_.size() - 1;
    size_t i = cursor_;
    for (uint32_t s = 0; s < n; ++s) {
        const float x = in[s];
        const float a = std::fabs(x);
        for (;;) {
            while (a < nodes[i].x) {
                --i;
            }
            if (i < last && nodes[i + 1].x <= a) {
                ++i;
                continue;
            }
            break;
        }
        const float y = nodes[i].slope * (a - nodes[i].x) + nodes[i].y;
        uint32_t yBits;
        uint32_t xBits;
        std::memcpy(&yBits, &y, sizeof yBits);
        std::memcpy(&xBits, &x, sizeof xBits);
        yBits |= xBits & 0x80000000u;
        std::memcpy(&out[s], &yBits, sizeof yBits);
    }
    cursor_ = i;
}

} // namespace dsp

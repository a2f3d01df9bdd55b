#include "transfer_curve.h"

#include <cmath>
#include <cstring>
#include <new>

namespace dsp {

namespace {

constexpr double kQuarterPi = 0.7853981633974483;

void freeList(CurveNode* node) {
    while (node != nullptr) {
        CurveNode* next = node->next;
        delete node;
        node = next;
    }
}

// Slope of the segment from a to b, computed in double from the stored floats.
float segmentSlope(const CurveNode* a, const CurveNode* b) {
    return static_cast<float>((static_cast<double>(b->y) - a->y) /
                              (static_cast<double>(b->x) - a->x));
}

// The two end nodes (0, 0) and (1, 1), linked, with the slope 1 between them.
bool makeStraightLine(CurveNode*& first, CurveNode*& last) {
    first = new (std::nothrow) CurveNode{0.0f, 0.0f, 1.0f, nullptr, nullptr};
    last = new (std::nothrow) CurveNode{1.0f, 1.0f, 0.0f, nullptr, nullptr};
    if (first == nullptr || last == nullptr) {
        delete first;
        delete last;
        return false;
    }
    first->next = last;
    last->prev = first;
    return true;
}

double clampTo(double v, double lo, double hi) {
    return v < lo ? lo : (v > hi ? hi : v);
}

} // namespace

TransferCurve::~TransferCurve() {
    clear();
}

void TransferCurve::clear() {
    freeList(head);
    head = tail = cursor = nullptr;
    count = 0;
    ready = 0;
}

bool TransferCurve::resetIdentity() {
    if (ready) {
        return true;
    }
    CurveNode* first = nullptr;
    CurveNode* last = nullptr;
    if (!makeStraightLine(first, last)) {
        return false;
    }
    head = first;
    tail = last;
    cursor = last;
    count = 2;
    ready = 1;
    return true;
}

bool TransferCurve::build(float harmonics) {
    CurveNode* first = nullptr;
    CurveNode* last = nullptr;
    if (!makeStraightLine(first, last)) {
        return false;
    }
    int32_t nodes = 2;

    const double h = harmonics;
    const double a = 0.5 - h * std::cos(kQuarterPi);
    const double b = 0.5 + h * std::sin(kQuarterPi);
    for (int k = 1; k < 64; ++k) {
        const double t = k / 64.0;
        const float x = static_cast<float>(clampTo(2.0 * (1.0 - t) * t * a + t * t, 0.0, 1.0));
        const float y = static_cast<float>(clampTo(2.0 * (1.0 - t) * t * b + t * t, -1.0, 1.0));
        CurveNode* p = last;
        while (p->x > x) {
            p = p->prev;
        }
        CurveNode* q = p->next;
        // Points on an existing x are skipped; so is a point past the tail,
        // which only a NaN bend produces.
        if (q == nullptr || x == p->x || x == q->x) {
            continue;
        }
        CurveNode* n = new (std::nothrow) CurveNode{x, y, 0.0f, q, p};
        if (n == nullptr) {
            freeList(first);
            return false;
        }
        p->next = n;
        q->prev = n;
        n->slope = segmentSlope(n, q);
        p->slope = segmentSlope(p, n);
        ++nodes;
    }

    clear();
    head = first;
    tail = last;
    cursor = last;
    count = nodes;
    ready = 1;
    return true;
}

void TransferCurve::shape(const float* in, float* out, uint32_t n) {
    if (!ready) {
        if (in != out) {
            std::memmove(out, in, static_cast<size_t>(n) * sizeof(float));
        }
        return;
    }
    CurveNode* node = cursor;
    for (uint32_t i = 0; i < n; ++i) {
        const float x = in[i];
        const float a = std::fabs(x);
        for (;;) {
            while (a < node->x) {
                node = node->prev;
            }
            if (node->next != nullptr && node->next->x <= a) {
                node = node->next;
                continue;
            }
            break;
        }
        const float y = node->slope * (a - node->x) + node->y;
        uint32_t yBits;
        uint32_t xBits;
        std::memcpy(&yBits, &y, sizeof yBits);
        std::memcpy(&xBits, &x, sizeof xBits);
        yBits |= xBits & 0x80000000u;
        std::memcpy(&out[i], &yBits, sizeof yBits);
    }
    cursor = node;
}

} // namespace dsp

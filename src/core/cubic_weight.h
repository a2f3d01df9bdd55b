// The cubic convolution kernel with a = -1: the rate converter's 4-point
// interpolation and the pitch shifter's grain reader both weigh their taps
// with it. The kernel is two polynomial pieces; at the distances where they
// meet (exactly 1 and 2) both give +0.0.
#pragma once

namespace dsp {

// The piece for distances in [0, 1].
inline double cubicInner(double u) {
    return 1.0 - 2.0 * u * u + u * u * u;
}

// The piece for distances in [1, 2].
inline double cubicOuter(double u) {
    return 4.0 - 8.0 * u + 5.0 * u * u - u * u * u;
}

// Weight of a sample at distance u >= 0 from the interpolated point.
inline double cubicWeight(double u) {
    if (u < 1.0) {
        return cubicInner(u);
    }
    if (u < 2.0) {
        return cubicOuter(u);
    }
    return 0.0;
}

// The four weights for a point at fraction t in (-1, 1) past the second
// tap, for taps at distances |1 + t|, |t|, |t - 1| and |t - 2|: exactly the
// cubicWeight of each distance, with the piece each distance takes chosen
// once by the sign of t (for t < 0 the last tap lies beyond 2 and weighs 0).
// The distances are formed without fabs: rounding is symmetric, so 1 - t is
// the very double |t - 1| is, and so on.
struct CubicTaps {
    double w[4];
};

inline CubicTaps cubicTaps(double t) {
    if (t >= 0.0) {
        return CubicTaps{
            {cubicOuter(1.0 + t), cubicInner(t), cubicInner(1.0 - t), cubicOuter(2.0 - t)}};
    }
    return CubicTaps{{cubicInner(1.0 + t), cubicInner(-t), cubicOuter(1.0 - t), 0.0}};
}

} // namespace dsp

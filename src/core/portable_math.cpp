// Algorithms after the classic freely distributable math library: argument
// reduction by pi/2 (Cody-Waite, three parts), minimax kernels for sin and
// cos on [-pi/4, pi/4], exp by reduction to |r| <= ln2/2 and a rational
// kernel, log by reduction to [sqrt(2)/2, sqrt(2)] and a series in
// s = f / (2 + f), atan by reduction to |x| < 7/16 around four break points.
#include "portable_math.h"

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

namespace dsp {
namespace pm {

namespace {

uint32_t highWord(double x) {
    uint64_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    return static_cast<uint32_t>(bits >> 32);
}

double withHighWord(double x, uint32_t high) {
    uint64_t bits;
    std::memcpy(&bits, &x, sizeof bits);
    bits = (static_cast<uint64_t>(high) << 32) | (bits & 0xffffffffu);
    std::memcpy(&x, &bits, sizeof bits);
    return x;
}

double fromWords(uint32_t high, uint32_t low) {
    uint64_t bits = (static_cast<uint64_t>(high) << 32) | low;
    double x;
    std::memcpy(&x, &bits, sizeof bits);
    return x;
}

// sin on [-pi/4, pi/4] of x + y (y the tail of the reduced argument).
double kernelSin(double x, double y) {
    const double S1 = -1.66666666666666324348e-01;
    const double S2 = 8.33333333332248946124e-03;
    const double S3 = -1.98412698298579493134e-04;
    const double S4 = 2.75573137070700676789e-06;
    const double S5 = -2.50507602534068634195e-08;
    const double S6 = 1.58969099521155010221e-10;
    double z = x * x;
    double v = z * x;
    double r = S2 + z * (S3 + z * (S4 + z * (S5 + z * S6)));
    if (y == 0.0) {
        return x + v * (S1 + z * r);
    }
    return x - ((z * (0.5 * y - v * r) - y) - v * S1);
}

// cos on [-pi/4, pi/4] of x + y.
double kernelCos(double x, double y) {
    const double C1 = 4.16666666666666019037e-02;
    const double C2 = -1.38888888888741095749e-03;
    const double C3 = 2.48015872894767294178e-05;
    const double C4 = -2.75573143513906633035e-07;
    const double C5 = 2.08757232129817482790e-09;
    const double C6 = -1.13596475577881948265e-11;
    uint32_t ix = highWord(x) & 0x7fffffffu;
    double z = x * x;
    double r = z * (C1 + z * (C2 + z * (C3 + z * (C4 + z * (C5 + z * C6)))));
    if (ix < 0x3fd33333u) { // |x| < 0.3
        return 1.0 - (0.5 * z - (z * r - x * y));
    }
    double qx = ix > 0x3fe90000u ? 0.28125 : fromWords(ix - 0x00200000u, 0); // x/4, rounded down
    double hz = 0.5 * z - qx;
    double a = 1.0 - qx;
    return a - (hz - (z * r - x * y));
}

// x = n * pi/2 + (y0 + y1) with |y0 + y1| <= pi/4 (a little more for huge x,
// where the result is still the same on every build). Returns n mod 4.
int reduceHalfPi(double x, double& y0, double& y1) {
    const double invPio2 = 6.36619772367581382433e-01;
    const double pio2_1 = 1.57079632673412561417e+00;  // first 33 bits of pi/2
    const double pio2_1t = 6.07710050650619224932e-11; // pi/2 - pio2_1
    const double pio2_2 = 6.07710050630396597660e-11;  // next 33 bits
    const double pio2_2t = 2.02226624879595063154e-21;
    const double pio2_3 = 2.02226624871116645580e-21; // next 33 bits
    const double pio2_3t = 8.47842766036889956997e-32;
    double fn = std::floor(x * invPio2 + 0.5);
    double r = x - fn * pio2_1;
    double w = fn * pio2_1t;
    y0 = r - w;
    // Second and third steps where cancellation left too few bits.
    uint32_t expX = (highWord(x) >> 20) & 0x7ffu;
    if (expX - ((highWord(y0) >> 20) & 0x7ffu) > 16) {
        double t = r;
        w = fn * pio2_2;
        r = t - w;
        w = fn * pio2_2t - ((t - r) - w);
        y0 = r - w;
        if (expX - ((highWord(y0) >> 20) & 0x7ffu) > 49) {
            t = r;
            w = fn * pio2_3;
            r = t - w;
            w = fn * pio2_3t - ((t - r) - w);
            y0 = r - w;
        }
    }
    y1 = (r - y0) - w;
    double quadrant = fn - 4.0 * std::floor(fn * 0.25);
    return static_cast<int>(quadrant);
}

constexpr double kLn2Hi = 6.93147180369123816490e-01;
constexpr double kLn2Lo = 1.90821492927058770002e-10;

} // namespace

double sin(double x) {
    uint32_t ix = highWord(x) & 0x7fffffffu;
    if (ix <= 0x3fe921fbu) { // |x| <= pi/4
        return ix < 0x3e400000u ? x : kernelSin(x, 0.0);
    }
    if (ix >= 0x7ff00000u) {
        return x - x; // NaN for inf and NaN
    }
    double y0, y1;
    switch (reduceHalfPi(x, y0, y1)) {
    case 0:
        return kernelSin(y0, y1);
    case 1:
        return kernelCos(y0, y1);
    case 2:
        return -kernelSin(y0, y1);
    default:
        return -kernelCos(y0, y1);
    }
}

double cos(double x) {
    uint32_t ix = highWord(x) & 0x7fffffffu;
    if (ix <= 0x3fe921fbu) {
        return ix < 0x3e400000u ? 1.0 : kernelCos(x, 0.0);
    }
    if (ix >= 0x7ff00000u) {
        return x - x;
    }
    double y0, y1;
    switch (reduceHalfPi(x, y0, y1)) {
    case 0:
        return kernelCos(y0, y1);
    case 1:
        return -kernelSin(y0, y1);
    case 2:
        return -kernelCos(y0, y1);
    default:
        return kernelSin(y0, y1);
    }
}

double tan(double x) {
    uint32_t ix = highWord(x) & 0x7fffffffu;
    if (ix <= 0x3fe921fbu) {
        return ix < 0x3e400000u ? x : kernelSin(x, 0.0) / kernelCos(x, 0.0);
    }
    if (ix >= 0x7ff00000u) {
        return x - x;
    }
    double y0, y1;
    int n = reduceHalfPi(x, y0, y1);
    double s = kernelSin(y0, y1);
    double c = kernelCos(y0, y1);
    return (n & 1) == 0 ? s / c : -c / s;
}

double atan(double x) {
    static const double atanHi[] = {4.63647609000806093515e-01, 7.85398163397448278999e-01,
                                    9.82793723247329054082e-01, 1.57079632679489655800e+00};
    static const double atanLo[] = {2.26987774529616870924e-17, 3.06161699786838301793e-17,
                                    1.39033110312309984516e-17, 6.12323399573676603587e-17};
    static const double aT[] = {
        3.33333333333329318027e-01,  -1.99999999998764832476e-01, 1.42857142725034663711e-01,
        -1.11111104054623557880e-01, 9.09088713343650656196e-02,  -7.69187620504482999495e-02,
        6.66107313738753120669e-02,  -5.83357013379057348645e-02, 4.97687799461593236017e-02,
        -3.65315727442169155270e-02, 1.62858201153657823623e-02};
    uint32_t hx = highWord(x);
    uint32_t ix = hx & 0x7fffffffu;
    if (ix >= 0x44100000u) { // |x| >= 2^66
        if (x != x) {
            return x + x;
        }
        return (hx >> 31) != 0 ? -(atanHi[3] + atanLo[3]) : atanHi[3] + atanLo[3];
    }
    int id;
    if (ix < 0x3fdc0000u) { // |x| < 0.4375
        if (ix < 0x3e200000u) {
            return x;
        }
        id = -1;
    } else {
        x = std::fabs(x);
        if (ix < 0x3ff30000u) {     // |x| < 1.1875
            if (ix < 0x3fe60000u) { // 7/16 <= |x| < 11/16
                id = 0;
                x = (2.0 * x - 1.0) / (2.0 + x);
            } else { // 11/16 <= |x| < 19/16
                id = 1;
                x = (x - 1.0) / (x + 1.0);
            }
        } else if (ix < 0x40038000u) { // |x| < 2.4375
            id = 2;
            x = (x - 1.5) / (1.0 + 1.5 * x);
        } else {
            id = 3;
            x = -1.0 / x;
        }
    }
    double z = x * x;
    double w = z * z;
    double s1 = z * (aT[0] + w * (aT[2] + w * (aT[4] + w * (aT[6] + w * (aT[8] + w * aT[10])))));
    double s2 = w * (aT[1] + w * (aT[3] + w * (aT[5] + w * (aT[7] + w * aT[9]))));
    if (id < 0) {
        return x - x * (s1 + s2);
    }
    z = atanHi[id] - ((x * (s1 + s2) - atanLo[id]) - x);
    return (hx >> 31) != 0 ? -z : z;
}

double exp(double x) {
    const double P1 = 1.66666666666666019037e-01;
    const double P2 = -2.77777777770155933842e-03;
    const double P3 = 6.61375632143793436117e-05;
    const double P4 = -1.65339022054652515390e-06;
    const double P5 = 4.13813679705723846039e-08;
    const double invLn2 = 1.44269504088896338700e+00;
    if (x != x) {
        return x;
    }
    if (x > 7.09782712893383973096e+02) {
        return std::numeric_limits<double>::infinity();
    }
    if (x < -7.45133219101941108420e+02) {
        return 0.0;
    }
    uint32_t ix = highWord(x) & 0x7fffffffu;
    double hi = 0.0;
    double lo = 0.0;
    int k = 0;
    if (ix > 0x3fd62e42u) {     // |x| > ln2/2
        if (ix < 0x3ff0a2b2u) { // |x| < 1.5 ln2
            k = x < 0.0 ? -1 : 1;
            hi = x - k * kLn2Hi;
            lo = k * kLn2Lo;
        } else {
            k = static_cast<int>(invLn2 * x + (x < 0.0 ? -0.5 : 0.5));
            double t = k;
            hi = x - t * kLn2Hi;
            lo = t * kLn2Lo;
        }
        x = hi - lo;
    } else if (ix < 0x3e300000u) { // |x| < 2^-28
        return 1.0 + x;
    }
    double t = x * x;
    double c = x - t * (P1 + t * (P2 + t * (P3 + t * (P4 + t * P5))));
    if (k == 0) {
        return 1.0 - ((x * c) / (c - 2.0) - x);
    }
    double y = 1.0 - ((lo - (x * c) / (2.0 - c)) - hi);
    return std::ldexp(y, k);
}

double log(double x) {
    const double Lg1 = 6.666666666666735130e-01;
    const double Lg2 = 3.999999999940941908e-01;
    const double Lg3 = 2.857142874366239149e-01;
    const double Lg4 = 2.222219843214978396e-01;
    const double Lg5 = 1.818357216161805012e-01;
    const double Lg6 = 1.531383769920937332e-01;
    const double Lg7 = 1.479819860511658591e-01;
    if (x != x || x == std::numeric_limits<double>::infinity()) {
        return x + x;
    }
    if (x <= 0.0) {
        return x == 0.0 ? -std::numeric_limits<double>::infinity()
                        : std::numeric_limits<double>::quiet_NaN();
    }
    int k = 0;
    uint32_t hx = highWord(x);
    if (hx < 0x00100000u) { // subnormal: scale up by 2^54
        k -= 54;
        x *= 18014398509481984.0;
        hx = highWord(x);
    }
    k += static_cast<int>(hx >> 20) - 1023;
    hx &= 0x000fffffu;
    uint32_t i = (hx + 0x95f64u) & 0x100000u;
    x = withHighWord(x, hx | (i ^ 0x3ff00000u)); // x or x/2 into [sqrt(2)/2, sqrt(2)]
    k += static_cast<int>(i >> 20);
    double f = x - 1.0;
    double dk = k;
    if ((0x000fffffu & (2 + hx)) < 3) { // |f| < 2^-20
        if (f == 0.0) {
            return k == 0 ? 0.0 : dk * kLn2Hi + dk * kLn2Lo;
        }
        double r = f * f * (0.5 - 0.33333333333333333 * f);
        return k == 0 ? f - r : dk * kLn2Hi - ((r - dk * kLn2Lo) - f);
    }
    double s = f / (2.0 + f);
    double z = s * s;
    int32_t below = static_cast<int32_t>(hx) - 0x6147a;
    double w = z * z;
    int32_t above = 0x6b851 - static_cast<int32_t>(hx);
    double t1 = w * (Lg2 + w * (Lg4 + w * Lg6));
    double t2 = z * (Lg1 + w * (Lg3 + w * (Lg5 + w * Lg7)));
    double r = t2 + t1;
    if ((below | above) > 0) {
        double hfsq = 0.5 * f * f;
        return k == 0 ? f - (hfsq - s * (hfsq + r))
                      : dk * kLn2Hi - ((hfsq - (s * (hfsq + r) + dk * kLn2Lo)) - f);
    }
    return k == 0 ? f - s * (f - r) : dk * kLn2Hi - ((s * (f - r) - dk * kLn2Lo) - f);
}

double log10(double x) {
    return log(x) * 4.34294481903251827651e-01;
}

double pow(double x, double y) {
    if (y == 0.0 || x == 1.0) {
        return 1.0;
    }
    if (x != x || y != y) {
        return x + y;
    }
    if (x == 0.0) {
        return y < 0.0 ? std::numeric_limits<double>::infinity() : 0.0;
    }
    // Small integer exponents by repeated squaring: exact wherever the
    // result is representable (2^10, (-2)^3), within a few ulps otherwise.
    if (std::floor(y) == y && std::fabs(y) <= 64.0) {
        int n = static_cast<int>(std::fabs(y));
        double result = 1.0;
        double base = x;
        while (n != 0) {
            if ((n & 1) != 0) {
                result *= base;
            }
            base *= base;
            n >>= 1;
        }
        return y < 0.0 ? 1.0 / result : result;
    }
    double sign = 1.0;
    if (x < 0.0) {
        if (std::floor(y) != y) {
            return std::numeric_limits<double>::quiet_NaN();
        }
        // Odd integer exponents keep the sign.
        if (std::fabs(y) < 9007199254740992.0 && std::fmod(y, 2.0) != 0.0) {
            sign = -1.0;
        }
        x = -x;
    }
    return sign * exp(y * log(x));
}

double sinh(double x) {
    double ax = std::fabs(x);
    if (ax < 0.5) {
        // Series: the difference of exponentials would cancel here.
        double z = x * x;
        double sum = 1.0 / 1307674368000.0; // 1/15!
        sum = 1.0 / 6227020800.0 + z * sum;
        sum = 1.0 / 39916800.0 + z * sum;
        sum = 1.0 / 362880.0 + z * sum;
        sum = 1.0 / 5040.0 + z * sum;
        sum = 1.0 / 120.0 + z * sum;
        sum = 1.0 / 6.0 + z * sum;
        return x + x * z * sum;
    }
    double e = exp(ax);
    double result = ax < 22.0 ? 0.5 * (e - 1.0 / e) : 0.5 * e;
    return x < 0.0 ? -result : result;
}

double cosh(double x) {
    double e = exp(std::fabs(x));
    return std::fabs(x) < 22.0 ? 0.5 * (e + 1.0 / e) : 0.5 * e;
}

} // namespace pm
} // namespace dsp

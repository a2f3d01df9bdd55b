// The library's own elementary functions: accuracy against the C library's
// extended-precision versions (in units in the last place of the double
// result) over the ranges design work uses, and their special values.
#include "core/portable_math.h"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

namespace {

// Error of `value` against the reference, in units of the double's last place.
double ulpError(double value, long double reference) {
    double rounded = static_cast<double>(reference);
    if (rounded == 0.0) {
        return value == 0.0 ? 0.0 : std::numeric_limits<double>::infinity();
    }
    int exponent;
    std::frexp(rounded, &exponent);
    long double ulp = std::ldexp(1.0L, exponent - 53);
    return static_cast<double>(std::fabs(static_cast<long double>(value) - reference) / ulp);
}

// Largest error over `count` arguments evenly spread over [lo, hi].
double worstError(const std::function<double(double)>& f,
                  const std::function<long double(long double)>& reference, double lo, double hi,
                  int count) {
    double worst = 0.0;
    for (int i = 0; i <= count; ++i) {
        double x = lo + (hi - lo) * i / count;
        worst = std::max(worst, ulpError(f(x), reference(x)));
    }
    return worst;
}

// The Windows C runtime's extended-precision sin, cos and tan use the x87
// instructions, whose reduction by a 66-bit pi is itself wrong by many ulps
// far from 0. There the wide-range checks are skipped; the functions give the
// same bits as on Linux (compare-builds.sh shows it).
constexpr bool kWideTrigReference =
#if defined(_WIN32)
    false;
#else
    true;
#endif

TEST(PortableMath, SineAndCosineWithinOneUlp) {
    auto sinRef = [](long double x) { return std::sin(x); };
    auto cosRef = [](long double x) { return std::cos(x); };
    EXPECT_LE(worstError(dsp::pm::sin, sinRef, -0.78, 0.78, 20000), 1.0);
    EXPECT_LE(worstError(dsp::pm::cos, cosRef, -0.78, 0.78, 20000), 1.0);
    if (!kWideTrigReference) {
        GTEST_SKIP() << "no accurate reference beyond pi/4 on this platform";
    }
    EXPECT_LE(worstError(dsp::pm::sin, sinRef, -100.0, 100.0, 200001), 1.0);
    EXPECT_LE(worstError(dsp::pm::cos, cosRef, -100.0, 100.0, 200001), 1.0);
    // Near multiples of pi/2, where the reduction cancels most bits.
    for (int n = 1; n < 2000; ++n) {
        double x = n * 1.5707963267948966;
        EXPECT_LE(ulpError(dsp::pm::sin(x), std::sin(static_cast<long double>(x))), 1.0) << x;
        EXPECT_LE(ulpError(dsp::pm::cos(x), std::cos(static_cast<long double>(x))), 1.0) << x;
    }
}

TEST(PortableMath, TangentWithinTwoUlp) {
    auto tanRef = [](long double x) { return std::tan(x); };
    EXPECT_LE(worstError(dsp::pm::tan, tanRef, -0.78, 0.78, 100001), 2.0);
    if (!kWideTrigReference) {
        GTEST_SKIP() << "no accurate reference beyond pi/4 on this platform";
    }
    EXPECT_LE(worstError(dsp::pm::tan, tanRef, -1.5, 1.5, 100001), 2.0);
    EXPECT_LE(worstError(dsp::pm::tan, tanRef, 0.0001, 50.0, 100001), 2.0);
}

TEST(PortableMath, ArctangentWithinOneUlp) {
    auto atanRef = [](long double x) { return std::atan(x); };
    EXPECT_LE(worstError(dsp::pm::atan, atanRef, -3.0, 3.0, 200001), 1.0);
    EXPECT_LE(worstError(dsp::pm::atan, atanRef, -1e6, 1e6, 200001), 1.0);
    EXPECT_EQ(dsp::pm::atan(0.0), 0.0);
    EXPECT_EQ(dsp::pm::atan(1e300), 1.5707963267948966);
    EXPECT_EQ(dsp::pm::atan(-std::numeric_limits<double>::infinity()), -1.5707963267948966);
    EXPECT_TRUE(std::isnan(dsp::pm::atan(std::numeric_limits<double>::quiet_NaN())));
}

TEST(PortableMath, ExpAndLogWithinOneUlp) {
    auto expRef = [](long double x) { return std::exp(x); };
    auto logRef = [](long double x) { return std::log(x); };
    auto log10Ref = [](long double x) { return std::log10(x); };
    EXPECT_LE(worstError(dsp::pm::exp, expRef, -700.0, 700.0, 200001), 1.0);
    EXPECT_LE(worstError(dsp::pm::exp, expRef, -1.0, 1.0, 100001), 1.0);
    EXPECT_LE(worstError(dsp::pm::log, logRef, 1e-300, 1e300, 100001), 1.0);
    EXPECT_LE(worstError(dsp::pm::log, logRef, 0.5, 2.0, 100001), 1.0);
    EXPECT_LE(worstError(dsp::pm::log, logRef, 1.0 - 1e-6, 1.0 + 1e-6, 10001), 1.0);
    EXPECT_LE(worstError(dsp::pm::log10, log10Ref, 1e-5, 1e5, 100001), 2.0);
    // A subnormal argument.
    const double subnormal = 4.9e-320;
    EXPECT_LE(ulpError(dsp::pm::log(subnormal), std::log(static_cast<long double>(subnormal))),
              1.0);
}

TEST(PortableMath, PowAndHyperbolic) {
    for (int i = -400; i <= 400; ++i) {
        double y = i * 0.0137;
        long double reference = std::pow(10.0L, static_cast<long double>(y));
        // exp(y * log x) loses about |y * ln x| ulps.
        EXPECT_LE(ulpError(dsp::pm::pow(10.0, y), reference), 2.0 + std::fabs(y) * 2.31 * 1.5) << y;
    }
    auto sinhRef = [](long double x) { return std::sinh(x); };
    auto coshRef = [](long double x) { return std::cosh(x); };
    EXPECT_LE(worstError(dsp::pm::sinh, sinhRef, -0.5, 0.5, 20001), 1.0);
    EXPECT_LE(worstError(dsp::pm::sinh, sinhRef, -30.0, 30.0, 60001), 3.0);
    EXPECT_LE(worstError(dsp::pm::cosh, coshRef, -30.0, 30.0, 60001), 2.0);
}

TEST(PortableMath, SpecialValues) {
    const double inf = std::numeric_limits<double>::infinity();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    EXPECT_EQ(dsp::pm::sin(0.0), 0.0);
    EXPECT_EQ(dsp::pm::cos(0.0), 1.0);
    EXPECT_EQ(dsp::pm::tan(0.0), 0.0);
    EXPECT_TRUE(std::isnan(dsp::pm::sin(inf)));
    EXPECT_TRUE(std::isnan(dsp::pm::cos(nan)));
    EXPECT_EQ(dsp::pm::exp(0.0), 1.0);
    EXPECT_EQ(dsp::pm::exp(1000.0), inf);
    EXPECT_EQ(dsp::pm::exp(-1000.0), 0.0);
    EXPECT_EQ(dsp::pm::exp(-inf), 0.0);
    EXPECT_TRUE(std::isnan(dsp::pm::exp(nan)));
    EXPECT_EQ(dsp::pm::log(1.0), 0.0);
    EXPECT_EQ(dsp::pm::log(0.0), -inf);
    EXPECT_TRUE(std::isnan(dsp::pm::log(-1.0)));
    EXPECT_EQ(dsp::pm::log(inf), inf);
    EXPECT_EQ(dsp::pm::log10(1000.0), 3.0);
    EXPECT_EQ(dsp::pm::pow(2.0, 10.0), 1024.0);
    EXPECT_EQ(dsp::pm::pow(-2.0, 3.0), -8.0);
    EXPECT_EQ(dsp::pm::pow(-2.0, 2.0), 4.0);
    EXPECT_TRUE(std::isnan(dsp::pm::pow(-2.0, 0.5)));
    EXPECT_EQ(dsp::pm::pow(0.0, 2.0), 0.0);
    EXPECT_EQ(dsp::pm::pow(0.0, -1.0), inf);
    EXPECT_EQ(dsp::pm::pow(5.0, 0.0), 1.0);
    EXPECT_EQ(dsp::pm::pow(2.0, -3.0), 0.125);
    EXPECT_EQ(dsp::pm::pow(10.0, 0.5), dsp::pm::exp(0.5 * dsp::pm::log(10.0)));
    EXPECT_EQ(dsp::pm::sinh(0.0), 0.0);
    EXPECT_EQ(dsp::pm::cosh(0.0), 1.0);
    EXPECT_EQ(dsp::pm::sinh(-2.0), -dsp::pm::sinh(2.0));
}

} // namespace

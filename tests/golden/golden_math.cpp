// Golden run of the library's own elementary functions: the same bits on
// every build, unlike the C library's.
#include "golden/golden_runs.h"

#include "core/portable_math.h"

#include <cstdlib>

GOLDEN_RUN(portableMath) {
    for (int i = -20000; i <= 20000; ++i) {
        double x = i * 0.00731;
        out.value(dsp::pm::sin(x));
        out.value(dsp::pm::cos(x));
        out.value(dsp::pm::tan(x));
        out.value(dsp::pm::atan(x * 0.3));
        out.value(dsp::pm::exp(x * 0.05));
        out.value(dsp::pm::sinh(x * 0.01));
        out.value(dsp::pm::cosh(x * 0.01));
        double positive = i == 0 ? 1e-9 : std::abs(x);
        out.value(dsp::pm::log(positive));
        out.value(dsp::pm::log10(positive));
        out.value(dsp::pm::pow(10.0, x * 0.005));
        out.value(dsp::pm::pow(positive, 0.37));
    }
}

// Elementary functions computed by this library itself, with plain IEEE double
// operations only (no x87, no fused multiply-add), so that they give the same
// bits on every build: 64- and 32-bit, Linux and Windows. The C library's
// versions differ in the last bits between those platforms (and between
// processors), which would make filter designs, windows and tables differ.
// Accuracy is within about one unit in the last place for the arguments
// audio design work uses; pow, as exp(y * log(x)), loses about |y * log(x)|
// ulps (integer exponents up to 64 are multiplied out instead).
#pragma once

namespace dsp {
namespace pm {

double sin(double x);
double cos(double x);
double tan(double x);
double atan(double x);
double exp(double x);
double log(double x);
double log10(double x);
double pow(double x, double y);
double sinh(double x);
double cosh(double x);

} // namespace pm
} // namespace dsp

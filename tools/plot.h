// Drawing shared by the tool's pictures: axes with ticks, panel frames and
// the colour scale.
#pragma once

#include "image.h"
#include "pictures.h"

#include <string>
#include <vector>

namespace cli::plot {

constexpr Rgb kPaper{255, 255, 255};
constexpr Rgb kInk{20, 20, 20};
constexpr Rgb kAxis{110, 110, 110};

// Margins around the panels: room for the title, tick labels and units.
constexpr int kLeft = 56;
constexpr int kTop = 40;
constexpr int kGap = 24; // between panels, with the panel's name in it
constexpr int kBottom = 36;

// "44100 Hz stereo".
std::string describe(const AudioShape& shape);

// Panels of the given size stacked below each other from (kLeft, kTop).
std::vector<PlotArea> stackPanels(uint32_t count, int width, int height);

// 1, 2 or 5 times a power of ten: the smallest such step giving at most
// `most` steps over `span`.
double tickStep(double span, int most);
// The value with as many decimals as the step needs.
std::string tickLabel(double value, double step);

// The name of the panel's channel, above its right end.
void panelName(Image& image, const PlotArea& area, const std::string& name);
// A grey outline just outside the area.
void outline(Image& image, const PlotArea& area);
// Ticks below the area for 0..seconds across its width; with `labels`, their
// values and the unit "s" below them.
void timeAxis(Image& image, const PlotArea& area, double seconds, bool labels);
// Ticks left of the area for lo (bottom) .. hi (top), labelled, and `unit`
// written above the axis.
void valueAxis(Image& image, const PlotArea& area, double lo, double hi, int most,
               const std::string& unit);
// The row of `area` for value v of lo (bottom row) .. hi (top row).
int rowOf(const PlotArea& area, double v, double lo, double hi);

// A perceptual dark-to-bright colour map: t from 0 (black-violet) to 1
// (pale yellow), lightness rising steadily.
Rgb heat(double t);

} // namespace cli::plot

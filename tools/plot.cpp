#include "plot.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace cli::plot {

std::string describe(const AudioShape& shape) {
    return std::to_string(shape.rate) + " Hz " + (shape.channels == 2 ? "stereo" : "mono");
}

std::vector<PlotArea> stackPanels(uint32_t count, int width, int height) {
    std::vector<PlotArea> panels;
    for (uint32_t c = 0; c < count; ++c) {
        panels.push_back(
            PlotArea{kLeft, kTop + static_cast<int>(c) * (height + kGap), width, height});
    }
    return panels;
}

double tickStep(double span, int most) {
    if (!(span > 0.0) || most < 1) {
        return 1.0;
    }
    double step = std::pow(10.0, std::floor(std::log10(span / most)));
    for (double factor : {1.0, 2.0, 5.0, 10.0}) {
        if (span / (step * factor) <= most) {
            return step * factor;
        }
    }
    return step * 10.0;
}

std::string tickLabel(double value, double step) {
    const int decimals = std::max(0, static_cast<int>(-std::floor(std::log10(step) + 1e-9)));
    if (std::fabs(value) < step * 1e-6) {
        value = 0.0; // no "-0"
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.*f", decimals, value);
    return text;
}

void panelName(Image& image, const PlotArea& a, const std::string& name) {
    image.text(a.x + a.width - Image::textWidth(name), a.y - Image::kCharHeight - 4, name, kInk);
}

void outline(Image& image, const PlotArea& a) {
    const int left = a.x - 1, right = a.x + a.width, top = a.y - 1, bottom = a.y + a.height;
    image.line(left, top, right, top, kAxis);
    image.line(left, bottom, right, bottom, kAxis);
    image.line(left, top, left, bottom, kAxis);
    image.line(right, top, right, bottom, kAxis);
}

void timeAxis(Image& image, const PlotArea& a, double seconds, bool labels) {
    const double step = tickStep(seconds, std::max(2, a.width / 90));
    const int below = a.y + a.height;
    int lastLabelEnd = -1;
    for (int i = 0;; ++i) {
        const double t = i * step;
        if (t > seconds * (1.0 + 1e-9)) {
            break;
        }
        const int x = a.x + static_cast<int>(std::lround(t / seconds * a.width));
        image.line(x, below + 1, x, below + 4, kAxis);
        if (labels) {
            const std::string text = tickLabel(t, step);
            const int left = x - Image::textWidth(text) / 2;
            image.text(left, below + 7, text, kInk);
            lastLabelEnd = left + Image::textWidth(text);
        }
    }
    if (labels) {
        image.text(std::max(lastLabelEnd + 8, a.x + a.width + 6), below + 7, "s", kInk);
    }
}

int rowOf(const PlotArea& a, double v, double lo, double hi) {
    const double f = (v - lo) / (hi - lo);
    return a.y + a.height - 1 - static_cast<int>(std::lround(f * (a.height - 1)));
}

void valueAxis(Image& image, const PlotArea& a, double lo, double hi, int most,
               const std::string& unit) {
    const double step = tickStep(hi - lo, most);
    for (double v = std::ceil(lo / step - 1e-9) * step; v <= hi + step * 1e-9; v += step) {
        const int y = rowOf(a, v, lo, hi);
        image.line(a.x - 5, y, a.x - 2, y, kAxis);
        const std::string text = tickLabel(v, step);
        image.text(a.x - 8 - Image::textWidth(text), y - 3, text, kInk);
    }
    image.text(a.x - 8 - Image::textWidth(unit), a.y - Image::kCharHeight - 4, unit, kInk);
}

Rgb heat(double t) {
    // Nine stops of a dark-violet, red, orange, pale-yellow map whose
    // lightness grows evenly; linear in between.
    static const Rgb kStops[] = {{0, 0, 4},      {31, 12, 72},   {85, 15, 109},
                                 {136, 34, 106}, {186, 54, 85},  {227, 89, 51},
                                 {249, 140, 10}, {249, 201, 50}, {252, 255, 164}};
    constexpr int kLast = static_cast<int>(sizeof kStops / sizeof kStops[0]) - 1;
    t = std::clamp(std::isfinite(t) ? t : 0.0, 0.0, 1.0) * kLast;
    const int i = std::min(kLast - 1, static_cast<int>(t));
    const double f = t - i;
    auto mix = [f](uint8_t a, uint8_t b) {
        return static_cast<uint8_t>(std::lround(a + (b - a) * f));
    };
    const Rgb& a = kStops[i];
    const Rgb& b = kStops[i + 1];
    return Rgb{mix(a.r, b.r), mix(a.g, b.g), mix(a.b, b.b)};
}

} // namespace cli::plot

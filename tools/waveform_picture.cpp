#include "pictures.h"
#include "plot.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace cli {

namespace {

constexpr Rgb kPanel{246, 246, 246};
constexpr Rgb kZero{150, 150, 150};
constexpr Rgb kSliceShade{255, 170, 60};

} // namespace

const Rgb WaveformBuilder::kTrace{31, 100, 170};
const Rgb WaveformBuilder::kSliceLine{200, 80, 0};

WaveformBuilder::WaveformBuilder(std::string name, std::vector<TimeSpan> slices)
    : name_(std::move(name)), slices_(std::move(slices)) {}

void WaveformBuilder::begin(const AudioShape& shape) {
    shape_ = shape;
    columns_.assign(size_t{shape.channels} * kPlotWidth, Column{});
}

void WaveformBuilder::add(const int16_t* interleaved, uint32_t frames) {
    const uint32_t ch = shape_.channels;
    for (uint32_t i = 0; i < frames; ++i, ++position_) {
        if (position_ >= shape_.frames) {
            return; // more than announced: the picture ends where its axis does
        }
        const size_t x = position_ * kPlotWidth / shape_.frames;
        for (uint32_t c = 0; c < ch; ++c) {
            Column& col = columns_[c * size_t{kPlotWidth} + x];
            const int s = interleaved[size_t{i} * ch + c];
            col.lo = std::min(col.lo, s);
            col.hi = std::max(col.hi, s);
            col.last = s;
            col.seen = true;
        }
    }
}

Image WaveformBuilder::finish() {
    const uint32_t ch = shape_.channels;
    const int height = ch == 2 ? 200 : 300;
    plots_ = plot::stackPanels(ch, kPlotWidth, height);
    const PlotArea& last = plots_.back();
    Image image(last.x + kPlotWidth + 24, last.y + height + plot::kBottom, plot::kPaper);
    std::string title = name_ + " - " + plot::describe(shape_);
    if (!slices_.empty()) {
        title +=
            ", " + std::to_string(slices_.size()) + (slices_.size() == 1 ? " slice" : " slices");
    }
    image.text(8, 8, title, plot::kInk);
    const double seconds = static_cast<double>(shape_.frames) / shape_.rate;
    auto xOf = [&](double t) {
        return static_cast<int>(std::lround(std::clamp(t / seconds, 0.0, 1.0) * kPlotWidth));
    };
    for (uint32_t c = 0; c < ch; ++c) {
        const PlotArea& a = plots_[c];
        image.fill(a.x, a.y, a.width, a.height, kPanel);
        for (const TimeSpan& s : slices_) {
            const int x0 = xOf(s.startSeconds), x1 = xOf(s.endSeconds);
            image.shade(a.x + x0, a.y, std::max(1, x1 - x0), a.height, kSliceShade, 0.35);
        }
        auto rowOfSample = [&](int s) { return plot::rowOf(a, s, -32768.0, 32767.0); };
        const int zero = rowOfSample(0);
        image.line(a.x, zero, a.x + a.width - 1, zero, kZero);
        // Each column spans its own samples and the last one before it, so
        // the trace stays joined where columns are far apart in value; a
        // column without samples (fewer frames than pixels) holds the last.
        int previous = 0;
        bool started = false;
        for (int x = 0; x < kPlotWidth; ++x) {
            const Column& col = columns_[c * size_t{kPlotWidth} + x];
            int lo = col.seen ? col.lo : previous, hi = col.seen ? col.hi : previous;
            if (started) {
                lo = std::min(lo, previous);
                hi = std::max(hi, previous);
            }
            if (col.seen || started) {
                image.line(a.x + x, rowOfSample(hi), a.x + x, rowOfSample(lo), kTrace);
            }
            if (col.seen) {
                previous = col.last;
                started = true;
            }
        }
        for (size_t i = 0; i < slices_.size(); ++i) {
            const int x = a.x + std::min(xOf(slices_[i].startSeconds), kPlotWidth - 1);
            image.line(x, a.y, x, a.y + a.height - 1, kSliceLine);
            if (c == 0) {
                image.text(x + 3, a.y + 3, std::to_string(i + 1), kSliceLine);
            }
        }
        plot::outline(image, a);
        plot::valueAxis(image, a, -1.0, 1.0, 4, "");
        if (ch == 2) {
            plot::panelName(image, a, c == 0 ? "left" : "right");
        }
        plot::timeAxis(image, a, seconds, c + 1 == ch);
    }
    return image;
}

} // namespace cli

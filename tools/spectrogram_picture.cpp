// The spectrogram, drawn from the library's sliding analyzer (initFftAnalyze /
// doFftAnalyze) rather than from one block transform per column (initFft /
// doFft): the analyzer keeps its own history, so the hop and the transform
// length are independent (overlapping windows for a hop shorter than N)
// and the file's blocks need no regrouping beyond the hop.
#include "cli_error.h"
#include "dsp.h"
#include "pictures.h"
#include "plot.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

namespace cli {

namespace {

// The analyzer's floor: a bin at it held nothing measurable.
constexpr float kAnalyzerFloorDb = -120.0f;

// n values shown in at most `most` pixels: n itself, or n divided by the
// smallest whole factor that brings it within `most`.
uint32_t reduced(uint64_t n, uint32_t most) {
    if (n <= most) {
        return static_cast<uint32_t>(n);
    }
    const uint64_t factor = (n + most - 1) / most;
    return static_cast<uint32_t>((n + factor - 1) / factor);
}

// Ticks and labels right of the colour bar, in dB relative to a full-scale
// sine; an infinite top: nothing above the analyzer's floor.
void legend(Image& image, const PlotArea& bar, double topDb, double rangeDb) {
    for (int y = 0; y < bar.height; ++y) {
        const double t = 1.0 - static_cast<double>(y) / std::max(1, bar.height - 1);
        image.fill(bar.x, bar.y + y, bar.width, 1, plot::heat(t));
    }
    plot::outline(image, bar);
    image.text(bar.x, bar.y - Image::kCharHeight - 4, "dBFS", plot::kInk);
    if (!std::isfinite(topDb)) {
        image.text(bar.x + bar.width + 7, bar.y + bar.height / 2 - 3, "silent", plot::kInk);
        return;
    }
    const double bottomDb = topDb - rangeDb;
    const double step = plot::tickStep(rangeDb, std::max(2, bar.height / 40));
    for (double v = std::ceil(bottomDb / step - 1e-9) * step; v <= topDb + 1e-9; v += step) {
        const int y = plot::rowOf(bar, v, bottomDb, topDb);
        const int right = bar.x + bar.width;
        image.line(right + 1, y, right + 4, y, plot::kAxis);
        image.text(right + 7, y - 3, plot::tickLabel(v, step), plot::kInk);
    }
}

} // namespace

SpectrogramBuilder::SpectrogramBuilder(SpectrogramSettings settings)
    : settings_(std::move(settings)) {}

void SpectrogramBuilder::begin(const AudioShape& shape) {
    shape_ = shape;
    const uint32_t n = settings_.size, hop = settings_.hop, bins = n / 2;
    analyzer_ = own(initFftAnalyze(hop, shape.channels, n, std::max(n, hop)), termFftAnalyze,
                    "cannot create the analyzer (out of memory, or a size it does not take)");
    hopBuffer_.assign(size_t{hop} * shape.channels, 0);
    spectrum_.assign(size_t{bins} * shape.channels, 0.0f);
    columns_ = (shape.frames + hop - 1) / hop;
    // The spectrum of a call covers the newest N frames up to the end of its
    // hop; taking the one `lead_` calls later centres it on the hop.
    lead_ = static_cast<uint64_t>(std::max(0L, std::lround(n / (2.0 * hop) - 0.5)));
    const bool stereo = shape.channels == 2;
    gridColumns_ = reduced(columns_, 1200);
    // The panel's rows: as many as the bins, or fewer (each then shows the
    // loudest bin centred in it) or more (each then shows the nearest bin).
    const uint32_t rows = reduced(bins, stereo ? 300 : 600);
    gridRows_ = std::max(rows, stereo ? 200u : 400u);
    firstBin_.resize(gridRows_);
    lastBin_.resize(gridRows_);
    for (uint64_t p = 0; p < gridRows_; ++p) {
        // Row p holds the bins centred from p to p + 1 rows up.
        const uint64_t lo = (p * bins + gridRows_ - 1) / gridRows_;
        const uint64_t hi = ((p + 1) * bins + gridRows_ - 1) / gridRows_;
        const uint64_t nearest = std::min<uint64_t>(bins - 1, ((2 * p + 1) * bins + gridRows_) /
                                                                  (2 * uint64_t{gridRows_}));
        firstBin_[p] = static_cast<uint32_t>(lo < hi ? lo : nearest);
        lastBin_[p] = static_cast<uint32_t>(lo < hi ? std::min<uint64_t>(hi, bins) - 1 : nearest);
    }
    grid_.assign(size_t{shape.channels} * gridColumns_ * gridRows_,
                 -std::numeric_limits<float>::infinity());
}

void SpectrogramBuilder::add(const int16_t* interleaved, uint32_t frames) {
    const uint32_t ch = shape_.channels;
    while (frames > 0) {
        const uint32_t take = std::min(frames, settings_.hop - buffered_);
        std::memcpy(hopBuffer_.data() + size_t{buffered_} * ch, interleaved,
                    size_t{take} * ch * sizeof(int16_t));
        buffered_ += take;
        interleaved += size_t{take} * ch;
        frames -= take;
        if (buffered_ == settings_.hop) {
            analyse(buffered_);
            buffered_ = 0;
        }
    }
}

// One analyzer call on the buffered frames (a short block is padded with
// zeros and still advances a full hop); its spectra go into the grid.
void SpectrogramBuilder::analyse(uint32_t frames) {
    const uint32_t ch = shape_.channels;
    doFftAnalyze(analyzer_.get(), hopBuffer_.data(), spectrum_.data(), frames * 2 * ch);
    const uint64_t call = analysed_++;
    if (call < lead_ || call - lead_ >= columns_) {
        return;
    }
    const uint64_t column = (call - lead_) * gridColumns_ / columns_;
    const uint32_t bins = settings_.size / 2;
    for (uint32_t c = 0; c < ch; ++c) {
        float* cells = grid_.data() + (size_t{c} * gridColumns_ + column) * gridRows_;
        const float* db = spectrum_.data() + size_t{c} * bins;
        for (uint32_t p = 0; p < gridRows_; ++p) {
            cells[p] =
                std::max(cells[p], *std::max_element(db + firstBin_[p], db + lastBin_[p] + 1));
        }
    }
}

Image SpectrogramBuilder::finish() {
    if (buffered_ > 0) {
        analyse(buffered_);
        buffered_ = 0;
    }
    while (analysed_ < columns_ + lead_) {
        analyse(0);
    }
    return draw();
}

Image SpectrogramBuilder::draw() {
    const uint32_t ch = shape_.channels;
    const int width = std::max<int>(static_cast<int>(gridColumns_), 400);
    const int height = static_cast<int>(gridRows_);
    plots_ = plot::stackPanels(ch, width, height);
    const PlotArea& last = plots_.back();
    Image image(last.x + width + 96, last.y + height + plot::kBottom, plot::kPaper);
    const std::string title = settings_.name + " - " + plot::describe(shape_) + ", " +
                              std::to_string(settings_.size) + "-point spectra every " +
                              std::to_string(settings_.hop) + " frames";
    image.text(8, 8, title, plot::kInk);

    const float loudest = *std::max_element(grid_.begin(), grid_.end());
    const double range = settings_.rangeDb;
    for (uint32_t c = 0; c < ch; ++c) {
        const PlotArea& a = plots_[c];
        const float* cells = grid_.data() + size_t{c} * gridColumns_ * gridRows_;
        for (int x = 0; x < width; ++x) {
            const size_t column = size_t{static_cast<uint32_t>(x)} * gridColumns_ / width;
            for (int y = 0; y < height; ++y) {
                const float db = cells[column * gridRows_ + (height - 1 - y)];
                const double t = db <= kAnalyzerFloorDb ? 0.0 : 1.0 - (loudest - db) / range;
                image.set(a.x + x, a.y + y, plot::heat(t));
            }
        }
        plot::outline(image, a);
        const double nyquist = shape_.rate / 2.0;
        const bool kilo = nyquist >= 2000.0;
        plot::valueAxis(image, a, 0.0, kilo ? nyquist / 1000.0 : nyquist, std::max(2, height / 40),
                        kilo ? "kHz" : "Hz");
        if (ch == 2) {
            plot::panelName(image, a, c == 0 ? "left" : "right");
        }
        const double seconds = static_cast<double>(columns_) * settings_.hop / shape_.rate;
        plot::timeAxis(image, a, seconds, c + 1 == ch);
    }
    // A full-scale sine at a bin centre reads 20 log10(N/4) dB.
    const double reference = 20.0 * std::log10(settings_.size / 4.0);
    const PlotArea bar{last.x + width + 16, plots_.front().y, 14,
                       last.y + height - plots_.front().y};
    const bool silent = loudest <= kAnalyzerFloorDb;
    legend(image, bar, silent ? -HUGE_VAL : loudest - reference, range);
    return image;
}

} // namespace cli

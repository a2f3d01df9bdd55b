// Pictures of a file's samples: the sliding spectrum over time (a
// spectrogram) and the waveform with the slices found in it. Both take the
// samples block by block as a SampleSink and draw an Image at the end.
#pragma once

#include "image.h"
#include "owned.h"

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

struct AudioShape {
    uint32_t rate = 0;
    uint32_t channels = 0; // 1 or 2
    uint64_t frames = 0;   // at least 1
};

// Receives a file's samples: begin() once, then add() with every block of
// interleaved 16-bit frames in order.
class SampleSink {
public:
    virtual ~SampleSink() = default;
    virtual void begin(const AudioShape& shape) = 0;
    virtual void add(const int16_t* interleaved, uint32_t frames) = 0;
};

// Where a channel is plotted in the picture (mono or left first).
struct PlotArea {
    int x = 0, y = 0, width = 0, height = 0;
};

struct SpectrogramSettings {
    uint32_t size = 2048; // transform length N, a power of two 4..32768
    uint32_t hop = 512;   // frames between spectra
    double rangeDb = 100.0;
    std::string name; // of the file, for the title
};

// Time across (one column per spectrum, several combined into one pixel by
// their maximum when there are more than 1200, widened to at least 400
// pixels), frequency up on a linear scale from 0 Hz to half the rate (bin
// k at k x rate / N Hz, in the row its frequency falls in; with more bins
// than rows, each row shows the loudest of its bins). Colours span rangeDb below the
// loudest bin of the whole file; stereo gets one panel per channel.
class SpectrogramBuilder : public SampleSink {
public:
    explicit SpectrogramBuilder(SpectrogramSettings settings);

    void begin(const AudioShape& shape) override;
    void add(const int16_t* interleaved, uint32_t frames) override;
    // Analyses the rest and draws the picture.
    Image finish();

    const std::vector<PlotArea>& plots() const { return plots_; }
    uint64_t spectra() const { return columns_; }

private:
    void analyse(uint32_t frames);
    Image draw();

    SpectrogramSettings settings_;
    AudioShape shape_;
    Owned analyzer_{nullptr, nullptr};
    std::vector<int16_t> hopBuffer_;
    uint32_t buffered_ = 0;
    std::vector<float> spectrum_;
    uint64_t columns_ = 0;  // spectra shown
    uint64_t lead_ = 0;     // spectra skipped at the start so each is centred on its hop
    uint64_t analysed_ = 0; // analyzer calls so far
    uint32_t gridColumns_ = 0, gridRows_ = 0;
    std::vector<uint32_t> firstBin_, lastBin_; // the bins of each row, bottom up
    std::vector<float> grid_; // per channel, column after column, the loudest dB per row
    std::vector<PlotArea> plots_;
};

struct TimeSpan {
    double startSeconds = 0.0;
    double endSeconds = 0.0;
};

// One panel per channel: the smallest and largest sample of each pixel
// column, a 0 line, amplitude ticks at +/-1.0 and +/-0.5 of full scale; the
// slices given are shaded with a line and their number at their start.
class WaveformBuilder : public SampleSink {
public:
    // `name`: the file's, for the title.
    WaveformBuilder(std::string name, std::vector<TimeSpan> slices);

    void begin(const AudioShape& shape) override;
    void add(const int16_t* interleaved, uint32_t frames) override;
    Image finish();

    const std::vector<PlotArea>& plots() const { return plots_; }

    static constexpr int kPlotWidth = 1000;
    static const Rgb kTrace;
    static const Rgb kSliceLine;

private:
    struct Column {
        int lo = 32767, hi = -32768, last = 0;
        bool seen = false;
    };

    std::string name_;
    std::vector<TimeSpan> slices_;
    AudioShape shape_;
    uint64_t position_ = 0;
    std::vector<Column> columns_; // per channel, kPlotWidth each
    std::vector<PlotArea> plots_;
};

} // namespace cli

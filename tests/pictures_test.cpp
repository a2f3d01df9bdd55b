// The tool's pictures: the spectrogram's rows and colours, the waveform's
// slice marks, the PNG encoding, and `dsp spectrogram` / `dsp waveform` run
// end to end against the same pictures drawn here.
#include "dsp.h"
#include "pictures.h"
#include "plot.h"
#include "png_writer.h"

#include "support/tool_run.h"
#include "support/wavefile_test_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#ifdef DSP_PNG_LIBPNG
#include <png.h>
#endif

namespace {

using cli::Image;
using cli::PlotArea;
using cli::Rgb;

struct Tone {
    double hz;
    double dbfs;
};

// Interleaved frames; every channel a sum of its own tones.
std::vector<int16_t> tones(uint32_t rate, size_t frames, const std::vector<std::vector<Tone>>& ch) {
    std::vector<int16_t> out(frames * ch.size());
    for (size_t i = 0; i < frames; ++i) {
        for (size_t c = 0; c < ch.size(); ++c) {
            double v = 0.0;
            for (const Tone& t : ch[c]) {
                v += 32767.0 * std::pow(10.0, t.dbfs / 20.0) *
                     std::sin(2.0 * M_PI * t.hz * static_cast<double>(i) / rate);
            }
            out[i * ch.size() + c] = static_cast<int16_t>(std::lround(v));
        }
    }
    return out;
}

// Feeds the frames in blocks of `block` (the last one shorter).
void feed(cli::SampleSink& sink, uint32_t rate, uint32_t channels,
          const std::vector<int16_t>& samples, uint32_t block) {
    const size_t frames = samples.size() / channels;
    sink.begin(cli::AudioShape{rate, channels, frames});
    for (size_t at = 0; at < frames; at += block) {
        sink.add(samples.data() + at * channels,
                 static_cast<uint32_t>(std::min<size_t>(block, frames - at)));
    }
}

int brightness(Rgb c) {
    return c.r + c.g + c.b;
}

struct SpectrogramCase {
    uint32_t rate, size, hop;
    // The first tone of each channel is its loudest, the first channel's the
    // loudest of all; tones whose colour is checked lie on bin centres.
    std::vector<std::vector<Tone>> channels;
};

// The brightest row of each panel lies at its loudest tone within a bin (or
// a pixel row, where a row holds several bins); a second tone 40 dB down
// shows the colour 40 dB down the scale; the picture does not depend on the
// block size the samples come in.
TEST(Spectrogram, RowsAndColoursFollowTheTones) {
    const std::vector<SpectrogramCase> cases = {
        {48000, 256, 64, {{{5000.0, -3.0}}}}, // fewer bins than rows
        {44100, 1024, 300, {{{3000.0, -6.0}}, {{12000.0, -10.0}}}},
        {22050, 32768, 8192, {{{22050.0 * 654 / 32768, -6.0}, {22050.0 * 6000 / 32768, -46.0}}}},
    };
    for (const SpectrogramCase& t : cases) {
        SCOPED_TRACE(testing::Message() << t.rate << " Hz, N " << t.size << ", hop " << t.hop);
        const auto ch = static_cast<uint32_t>(t.channels.size());
        const std::vector<int16_t> samples = tones(t.rate, t.rate * 2, t.channels);
        cli::SpectrogramSettings settings;
        settings.size = t.size;
        settings.hop = t.hop;
        cli::SpectrogramBuilder builder(settings);
        feed(builder, t.rate, ch, samples, 4096);
        const Image image = builder.finish();
        cli::SpectrogramBuilder other(settings);
        feed(other, t.rate, ch, samples, 999);
        EXPECT_EQ(other.finish().pixels(), image.pixels()) << "blocks of 999 frames";

        ASSERT_EQ(builder.plots().size(), ch);
        const double binHz = static_cast<double>(t.rate) / t.size;
        for (uint32_t c = 0; c < ch; ++c) {
            const PlotArea& a = builder.plots()[c];
            const double rowHz = t.rate / 2.0 / a.height;
            // Per row, the summed brightness over the middle of the time axis.
            auto rowBrightness = [&](int y) {
                long sum = 0;
                for (int x = a.x + a.width / 5; x < a.x + a.width * 4 / 5; ++x) {
                    sum += brightness(image.at(x, y));
                }
                return sum;
            };
            auto rowOfHz = [&](double hz) { return a.y + a.height - 1 - int(hz / rowHz); };
            int best = a.y;
            for (int y = a.y; y < a.y + a.height; ++y) {
                best = rowBrightness(y) > rowBrightness(best) ? y : best;
            }
            const double shownHz = (a.y + a.height - 1 - best + 0.5) * rowHz;
            EXPECT_NEAR(shownHz, t.channels[c][0].hz, std::max(binHz, rowHz)) << "channel " << c;
            // Colours within 1 dB of the scale's top, and of 40 dB down it.
            auto expectColour = [&](int y, double db) {
                const int b = brightness(image.at(a.x + a.width / 2, y));
                EXPECT_GE(b, brightness(cli::plot::heat(1.0 - (db + 1.0) / 100.0))) << y;
                EXPECT_LE(b, brightness(cli::plot::heat(1.0 - (db - 1.0) / 100.0))) << y;
            };
            if (c == 0) {
                expectColour(best, 0.0);
            }
            if (t.channels[c].size() > 1) {
                expectColour(rowOfHz(t.channels[c][1].hz), 40.0);
            }
        }
    }
}

// A tone from 0.5 to 1.5 s lights its row over a span centred on 1.0 s: each
// spectrum is shown at the middle of its window, not at its end.
TEST(Spectrogram, SpectraAreCentredInTime) {
    const uint32_t rate = 44100, size = 8192, hop = 512;
    std::vector<int16_t> samples(rate * 2, 0);
    const std::vector<int16_t> tone = tones(rate, rate, {{{2000.0, -6.0}}});
    std::copy(tone.begin(), tone.end(), samples.begin() + rate / 2);
    cli::SpectrogramSettings settings;
    settings.size = size;
    settings.hop = hop;
    cli::SpectrogramBuilder builder(settings);
    feed(builder, rate, 1, samples, 4096);
    const Image image = builder.finish();
    const PlotArea& a = builder.plots()[0];
    const int row = a.y + a.height - 1 - static_cast<int>(2000.0 / (rate / 2.0 / a.height));
    int first = -1, last = -1;
    for (int x = 0; x < a.width; ++x) {
        if (brightness(image.at(a.x + x, row)) > brightness(cli::plot::heat(0.5))) {
            first = first < 0 ? x : first;
            last = x;
        }
    }
    const double seconds = static_cast<double>(builder.spectra()) * hop / rate;
    const double middle = (first + last + 1) / 2.0 / a.width * seconds;
    EXPECT_NEAR(middle, 1.0, static_cast<double>(hop) / rate + seconds / a.width);
}

// The x of every run of the slice line colour along the top row of a panel.
std::vector<int> sliceLines(const Image& image, const PlotArea& a) {
    std::vector<int> at;
    for (int x = a.x; x < a.x + a.width; ++x) {
        const bool line = image.at(x, a.y) == cli::WaveformBuilder::kSliceLine;
        if (line && (x == a.x || image.at(x - 1, a.y) != cli::WaveformBuilder::kSliceLine)) {
            at.push_back(x - a.x);
        }
    }
    return at;
}

// Each slice has its start line in every panel, at its time; the trace of
// a half-scale sine spans exactly the rows of +/-0.5.
TEST(Waveform, SlicesAndTrace) {
    const uint32_t rate = 8000;
    const std::vector<int16_t> samples =
        tones(rate, rate * 4, {{{50.0, -6.0206}}, {{70.0, -6.0206}}});
    const std::vector<cli::TimeSpan> slices = {{0.5, 1.0}, {1.25, 2.0}, {3.0, 3.9}};
    cli::WaveformBuilder builder("t", slices);
    feed(builder, rate, 2, samples, 1234);
    const Image image = builder.finish();
    ASSERT_EQ(builder.plots().size(), 2u);
    for (const PlotArea& a : builder.plots()) {
        EXPECT_EQ(sliceLines(image, a), (std::vector<int>{125, 313, 750}));
        int top = a.y + a.height, bottom = a.y - 1;
        for (int y = a.y; y < a.y + a.height; ++y) {
            for (int x = a.x; x < a.x + a.width; ++x) {
                if (image.at(x, y) == cli::WaveformBuilder::kTrace) {
                    top = std::min(top, y);
                    bottom = std::max(bottom, y);
                }
            }
        }
        EXPECT_NEAR(top, cli::plot::rowOf(a, 0.5, -1.0, 1.0), 1);
        EXPECT_NEAR(bottom, cli::plot::rowOf(a, -0.5, -1.0, 1.0), 1);
    }
}

uint32_t be32(const std::vector<uint8_t>& b, size_t at) {
    return uint32_t{b[at]} << 24 | uint32_t{b[at + 1]} << 16 | uint32_t{b[at + 2]} << 8 | b[at + 3];
}

// The signature and an IHDR of the image's size.
void expectPngHeader(const std::vector<uint8_t>& png, const Image& image) {
    const uint8_t signature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    ASSERT_GE(png.size(), 33u);
    EXPECT_EQ(std::memcmp(png.data(), signature, 8), 0);
    EXPECT_EQ(std::string(png.begin() + 12, png.begin() + 16), "IHDR");
    EXPECT_EQ(be32(png, 16), static_cast<uint32_t>(image.width()));
    EXPECT_EQ(be32(png, 20), static_cast<uint32_t>(image.height()));
}

// Both encoders' files decode (by libpng, where present) to the same pixels.
TEST(Png, EncodersRoundTrip) {
    if (!cli::pngSupported()) {
        EXPECT_THROW(cli::encodePng(Image(2, 2, Rgb{})), std::runtime_error);
        return;
    }
    Image image(123, 45, Rgb{250, 240, 230});
    for (int x = 0; x < image.width(); ++x) {
        image.line(x, 0, image.width() - 1 - x, image.height() - 1, cli::plot::heat(x / 122.0));
    }
    image.text(3, 3, "0.5 kHz -20 dBFS", Rgb{0, 0, 0});
    std::vector<std::vector<uint8_t>> files = {cli::encodePng(image)};
#ifdef DSP_PNG_ZLIB
    files.push_back(cli::encodePngWithZlib(image));
#endif
    for (const std::vector<uint8_t>& png : files) {
        expectPngHeader(png, image);
#ifdef DSP_PNG_LIBPNG
        png_image decoded{};
        decoded.version = PNG_IMAGE_VERSION;
        ASSERT_NE(png_image_begin_read_from_memory(&decoded, png.data(), png.size()), 0);
        decoded.format = PNG_FORMAT_RGB;
        std::vector<uint8_t> pixels(PNG_IMAGE_SIZE(decoded));
        ASSERT_NE(png_image_finish_read(&decoded, nullptr, pixels.data(), 0, nullptr), 0);
        EXPECT_EQ(pixels, image.pixels());
#endif
    }
}

#if defined(DSP_TOOL_PATH) && !defined(_WIN32)

namespace fs = std::filesystem;
using dsptest::runTool;
using dsptest::scratchPath;
using dsptest::ToolRun;

std::string writeWave(const std::string& name, uint32_t rate, uint16_t channels,
                      const std::vector<int16_t>& samples) {
    std::string path = scratchPath(name);
    dsptest::writeFileBytes(path, dsptest::pcm16Wave(channels, rate, samples));
    return path;
}

// Four bursts of noise, 0.6 s apart, in silence.
std::vector<int16_t> bursts(uint32_t rate) {
    std::vector<int16_t> s(rate * 3, 0);
    uint32_t x = 1;
    for (int b = 0; b < 4; ++b) {
        for (uint32_t i = 0; i < rate / 5; ++i) {
            x = x * 1664525u + 1013904223u;
            const double decay = std::exp(-10.0 * i / rate);
            s[rate / 5 + b * rate * 3 / 5 + i] =
                static_cast<int16_t>((static_cast<int32_t>(x >> 16) - 32768) * decay * 0.6);
        }
    }
    return s;
}

// The tool's file is the picture drawn here from the same samples and
// settings, byte for byte.
TEST(PictureTool, SpectrogramIsTheLibrarysPicture) {
    if (!cli::pngSupported()) {
        GTEST_SKIP() << "built without libpng or zlib";
    }
    const std::vector<int16_t> samples = tones(16000, 24000, {{{2000.0, -6.0}}, {{500.0, -20.0}}});
    const std::string in = writeWave("tones.wav", 16000, 2, samples);
    const std::string out = scratchPath("tones.png");
    const ToolRun run =
        runTool("spectrogram " + in + " " + out + " --size 1024 --hop 300 --range 80");
    ASSERT_EQ(run.status, 0) << run.err;
    cli::SpectrogramSettings settings;
    settings.size = 1024;
    settings.hop = 300;
    settings.rangeDb = 80.0;
    settings.name = "tones.wav";
    cli::SpectrogramBuilder builder(settings);
    feed(builder, 16000, 2, samples, 4096);
    const Image image = builder.finish();
    EXPECT_EQ(dsptest::readFileBytes(out), cli::encodePng(image));
    EXPECT_EQ(run.out, "wrote " + out + ": " + std::to_string(image.width()) + " x " +
                           std::to_string(image.height()) + " pixels, 80 spectra\n");
}

// --slices marks what the library's slicer finds with the defaults of
// `dsp slices`: one span per burst.
TEST(PictureTool, WaveformMarksTheSlicerSlices) {
    if (!cli::pngSupported()) {
        GTEST_SKIP() << "built without libpng or zlib";
    }
    const uint32_t rate = 44100;
    const std::vector<int16_t> samples = bursts(rate);
    const std::string in = writeWave("bursts.wav", rate, 1, samples);
    const std::string out = scratchPath("bursts.png");
    ToolRun run = runTool("waveform " + in + " " + out + " --slices");
    ASSERT_EQ(run.status, 0) << run.err;

    void* slicer = initWaveSlice(4096, 1, rate, -30.0f, -40.0f, 5.0f, 0.1f);
    ASSERT_NE(slicer, nullptr);
    for (size_t at = 0; at < samples.size(); at += 4096) {
        doWaveSlice(slicer, samples.data() + at,
                    static_cast<uint32_t>(2 * std::min<size_t>(4096, samples.size() - at)));
    }
    std::vector<cli::TimeSpan> spans;
    for (const SliceRecord* r = getWaveSlice(slicer, 0); r != nullptr; r = r->next) {
        spans.push_back(cli::TimeSpan{r->startSeconds, r->endSeconds});
    }
    termWaveSlice(slicer);
    ASSERT_EQ(spans.size(), 4u);
    cli::WaveformBuilder builder("bursts.wav", spans);
    feed(builder, rate, 1, samples, 4096);
    const Image image = builder.finish();
    EXPECT_EQ(sliceLines(image, builder.plots()[0]).size(), 4u);
    EXPECT_EQ(dsptest::readFileBytes(out), cli::encodePng(image));
    EXPECT_NE(run.out.find(", 4 slices marked\n"), std::string::npos) << run.out;
}

// Bad arguments: one line, exit status 2, nothing written. A build without
// PNG support refuses the commands by name.
TEST(PictureTool, BadArgumentsAndRefusal) {
    const std::string in = writeWave("in.wav", 8000, 1, tones(8000, 8000, {{{440.0, -6.0}}}));
    const std::string out = scratchPath("out.png");
    const std::string files = in + " " + out;
    const std::string bad[] = {"spectrogram " + in,
                               "spectrogram " + files + " --size 1000",
                               "spectrogram " + files + " --size 65536",
                               "spectrogram " + files + " --hop 0",
                               "spectrogram " + files + " --range",
                               "spectrogram " + files + " x",
                               "waveform " + files + " --slice"};
    for (const std::string& args : bad) {
        SCOPED_TRACE(args);
        ToolRun run = runTool(args);
        EXPECT_EQ(run.status, 2);
        EXPECT_EQ(run.err.rfind("dsp: ", 0), 0u) << run.err;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), 1) << run.err;
        EXPECT_FALSE(fs::exists(out));
    }
    if (cli::pngSupported()) {
        return;
    }
    for (const char* command : {"spectrogram", "waveform"}) {
        ToolRun run = runTool(std::string(command).append(" ").append(files));
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.err, std::string("dsp: dsp was built without libpng or zlib; ") + command +
                               " needs one of them to write PNG\n");
    }
}

#endif

} // namespace

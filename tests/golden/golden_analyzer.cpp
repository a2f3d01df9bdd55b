// Golden runs of the analyzers: block spectra, sliding spectra, envelopes.
#include "golden/golden_runs.h"

#include "dsp.h"

namespace {

// Feeds blocks to an analyzer and digests its float output array (given
// generous room, pre-filled so unwritten entries are the same everywhere).
template <typename Analyze>
void analyzeBlocks(golden::Sink& out, uint32_t channels, uint32_t frames, int blocks,
                   size_t outFloats, Analyze analyze) {
    std::vector<int16_t> signal =
        golden::testSignal(static_cast<size_t>(frames) * blocks, channels, 21);
    std::vector<float> result(outFloats);
    for (int b = 0; b < blocks; ++b) {
        std::fill(result.begin(), result.end(), -12345.0f);
        out.value(analyze(signal.data() + static_cast<size_t>(b) * frames * channels, result.data(),
                          frames * channels * 2));
        out.samples(result);
    }
}

} // namespace

GOLDEN_RUN(analyzerFftStereoTwoSpectra) {
    void* h = initFft(1024, 2, 2, 100);
    analyzeBlocks(out, 2, 1024, 3, 1024 + 64, [h](const int16_t* src, float* dst, uint32_t bytes) {
        return doFft(h, src, dst, bytes);
    });
    out.value(termFft(h));
}

GOLDEN_RUN(analyzerFftMono) {
    void* h = initFft(512, 1, 1, 80);
    analyzeBlocks(out, 1, 512, 3, 512 + 64, [h](const int16_t* src, float* dst, uint32_t bytes) {
        return doFft(h, src, dst, bytes);
    });
    out.value(termFft(h));
}

GOLDEN_RUN(analyzerSlidingFft) {
    void* h = initFftAnalyze(256, 2, 512, 1024);
    analyzeBlocks(out, 2, 256, 6, 2 * 512 + 64,
                  [h](const int16_t* src, float* dst, uint32_t bytes) {
                      return doFftAnalyze(h, src, dst, bytes);
                  });
    out.value(termFftAnalyze(h));
}

GOLDEN_RUN(analyzerEnvelope) {
    void* h = initEnvAnalyze(1000, 2, 44100);
    analyzeBlocks(out, 2, 1000, 4, 2 * 1000 + 64,
                  [h](const int16_t* src, float* dst, uint32_t bytes) {
                      return doEnvAnalyze(h, src, dst, bytes);
                  });
    out.value(termEnvAnalyze(h));
}

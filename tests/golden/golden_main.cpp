// dsp_golden: runs every registered golden run under every SIMD setting and
// prints "<setting> <run> <bytes> <digest>" per line.
// Usage: dsp_golden [--list] [name-substring]
#include "golden/golden_runs.h"

#include "dsp.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <limits>

namespace golden {

namespace {

std::vector<Run>& runTable() {
    static std::vector<Run> table;
    return table;
}

// Next value of a 32-bit linear congruential generator.
uint32_t nextRandom(uint32_t& state) {
    state = state * 1664525u + 1013904223u;
    return state;
}

} // namespace

void Sink::bytes(const void* data, size_t count) {
    const unsigned char* p = static_cast<const unsigned char*>(data);
    for (size_t i = 0; i < count; ++i) {
        hash_ ^= p[i];
        hash_ *= 1099511628211ull;
    }
    size_ += count;
}

Registrar::Registrar(const char* name, RunFunction run) {
    runTable().push_back(Run{name, run});
}

std::vector<Run> registeredRuns() {
    std::vector<Run> runs = runTable();
    std::sort(runs.begin(), runs.end(), [](const Run& a, const Run& b) { return a.name < b.name; });
    return runs;
}

std::vector<int16_t> testSignal(size_t frames, uint32_t channels, uint32_t seed) {
    std::vector<int16_t> samples(frames * channels);
    uint32_t state = seed * 2654435761u + 1u;
    // Rotating phasor: only + and * in double, so every build gets the same
    // bits; the step grows slowly to sweep the tone.
    double c = 1.0;
    double s = 0.0;
    double stepCos = 0.9995940400719181;   // cos(2 pi 200/44100)
    double stepSin = 0.028491315390844964; // sin(2 pi 200/44100)
    for (size_t i = 0; i < frames; ++i) {
        double nc = c * stepCos - s * stepSin;
        double ns = s * stepCos + c * stepSin;
        c = nc;
        s = ns;
        if (i % 64 == 63) {
            // Turn the step by a small fixed angle (bigger frequency step).
            double a = stepCos * 0.99999 - stepSin * 0.0044721;
            double b = stepSin * 0.99999 + stepCos * 0.0044721;
            stepCos = a;
            stepSin = b;
        }
        for (uint32_t ch = 0; ch < channels; ++ch) {
            int32_t noise = static_cast<int32_t>(nextRandom(state) >> 20) - 2048;
            double tone = (ch == 0 ? s : c) * 24000.0;
            int32_t v = static_cast<int32_t>(tone) + noise * 2;
            if (nextRandom(state) % 997 == 0) {
                v = (state & 0x100) != 0 ? 32767 : -32768;
            }
            v = std::min(32767, std::max(-32768, v));
            samples[i * channels + ch] = static_cast<int16_t>(v);
        }
    }
    return samples;
}

std::vector<float> testFloats(size_t count, uint32_t seed) {
    std::vector<float> values(count);
    uint32_t state = seed * 2246822519u + 7u;
    for (size_t i = 0; i < count; ++i) {
        uint32_t r = nextRandom(state) >> 8; // 24 bits
        values[i] = static_cast<float>(static_cast<double>(r) / 8388608.0 - 1.0) * 1.25f;
    }
    const float specials[] = {std::numeric_limits<float>::quiet_NaN(),
                              1.0f,
                              -1.0f,
                              0.5f,
                              -0.5f,
                              1.5f,
                              -1.5f,
                              -0.00001f,
                              0.0f};
    for (size_t i = 0; i < sizeof specials / sizeof specials[0] && i * 7 < count; ++i) {
        values[i * 7] = specials[i];
    }
    return values;
}

} // namespace golden

namespace {

struct SimdSetting {
    const char* name;
    uint8_t mmx;
    uint8_t amd3dnow;
    uint8_t sse;
};

const SimdSetting kSettings[] = {
    {"plain", 0, 0, 0}, {"mmx", 1, 0, 0},       {"3dnow", 0, 1, 0},
    {"sse", 0, 0, 1},   {"3dnow+sse", 0, 1, 1}, {"all", 1, 1, 1},
};

} // namespace

int main(int argc, char** argv) {
    bool listOnly = false;
    const char* filter = nullptr;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--list") == 0) {
            listOnly = true;
        } else {
            filter = argv[i];
        }
    }
    std::vector<golden::Run> runs = golden::registeredRuns();
    if (listOnly) {
        for (const golden::Run& run : runs) {
            std::printf("%s\n", run.name.c_str());
        }
        return 0;
    }
    for (const SimdSetting& setting : kSettings) {
        dspEnableMmx(setting.mmx);
        dspEnable3dnow(setting.amd3dnow);
        dspEnableSse(setting.sse);
        for (const golden::Run& run : runs) {
            if (filter != nullptr && run.name.find(filter) == std::string::npos) {
                continue;
            }
            golden::Sink sink;
            run.function(sink);
            std::printf("%-10s %-40s %10" PRIu64 " %016" PRIx64 "\n", setting.name,
                        run.name.c_str(), sink.size(), sink.digest());
        }
    }
    dspEnableMmx(0);
    dspEnable3dnow(0);
    dspEnableSse(0);
    return 0;
}

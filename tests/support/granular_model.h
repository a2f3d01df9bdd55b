// Straightforward models of the granular engines' per-sample grain loops,
// written from the stated arithmetic, to check the library's output sample
// for sample. They keep their own copies of every rule (window, pending
// settings, history ring, 32768-sample blocks). Beside them: the tests' test
// signal, processor makers and block runner.
#pragma once

#include "dsp.h"
#include "granular/pitch_shift_processor.h"
#include "granular/stretch_processor.h"
#include "support/rate_model.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace dsptest {

class GrainModel {
public:
    void setLevel(float levelDb) { level_ = static_cast<float>(std::pow(10.0, 0.05 * levelDb)); }

    // One call as the library runs it: in pieces of at most 32768 frames.
    std::vector<float> run(const std::vector<float>& in) {
        std::vector<float> out;
        for (size_t done = 0; done < in.size();) {
            const uint32_t n = static_cast<uint32_t>(std::min<size_t>(in.size() - done, 32768));
            chunk(in.data() + done, n, in.size() - done, out);
            done += n;
        }
        return out;
    }

protected:
    struct Settings {
        bool bypass;
        float ratio; // pitch ratio, or stretch factor
        float step;  // 1 / factor
        int32_t offset;
        uint32_t span;
    };
    struct Grain {
        bool active;
        int32_t start;
        int32_t age;
    };

    GrainModel(uint32_t rate, float levelDb, float grainSeconds, float spacingSeconds) {
        const double r = static_cast<float>(rate);
        length_ = static_cast<uint32_t>(r * grainSeconds * 1.5330188679245282);
        // A spacing that truncates to 0 samples counts as 1.
        spacing_ = std::max(1u, static_cast<uint32_t>(r * spacingSeconds));
        count_ = length_ / spacing_;
        setLevel(levelDb);
        for (uint32_t i = 0; i < length_; ++i) {
            const double x = 13.0 * i / length_ - 6.5;
            window_.push_back(static_cast<float>(std::exp(-0.25 * x * x)));
        }
    }

    virtual void chunk(const float* in, uint32_t n, size_t available, std::vector<float>& out) = 0;

    // x[k] of the call: in[k] also past the chunk (a read past the whole call,
    // possible only right after a change, takes its last sample), history
    // x[-m] = ring[(writeIndex + m - 1) mod span] before it.
    float x(const float* in, size_t available, int64_t k) const {
        if (k >= 0) {
            return in[std::min<int64_t>(k, static_cast<int64_t>(available) - 1)];
        }
        return ring_[static_cast<size_t>((writeIndex_ - k - 1) % now_.span)];
    }

    // Spawns a grain at `start` when due, then the level times the windowed
    // mean of the grains' reads; every active grain ages by one.
    template <class Read>
    float frame(int32_t start, Read read) {
        if (phase_ == 0) {
            for (Grain& g : grains_) {
                if (!g.active) {
                    g = {true, start, 0};
                    break;
                }
            }
        }
        phase_ = (phase_ + 1) % spacing_;
        double acc = 0.0;
        double wsum = 0.0;
        for (Grain& g : grains_) {
            if (!g.active) {
                continue;
            }
            if (!now_.bypass) {
                acc += read(g) * window_[g.age];
                wsum += window_[g.age];
            }
            g.age += 1;
            g.active = g.age < static_cast<int32_t>(length_);
        }
        return wsum > 0.0 ? static_cast<float>(level_ / wsum * acc) : 0.0f;
    }

    // Moves the grains back by the chunk, takes the pending settings and
    // stores the chunk's last `span` samples, newest first.
    void endChunk(const float* in, uint32_t n) {
        for (Grain& g : grains_) {
            g.start -= g.active ? static_cast<int32_t>(n) : 0;
        }
        now_ = next_;
        const uint32_t span = now_.span;
        if (span > n) {
            writeIndex_ = (span + writeIndex_ - n) % span;
        }
        for (uint32_t i = 1; i <= std::min(span, n); ++i) {
            ring_[(writeIndex_ + i - 1) % span] = in[n - i];
        }
    }

    uint32_t length_, spacing_, count_;
    float level_;
    std::vector<float> window_, ring_;
    std::vector<Grain> grains_;
    uint32_t writeIndex_ = 0, phase_ = 0;
    Settings now_{}, next_{};
};

class PitchModel : public GrainModel {
public:
    PitchModel(uint32_t rate, float cents, float levelDb, float grainSeconds, float spacingSeconds)
        : GrainModel(rate, levelDb, grainSeconds, spacingSeconds) {
        ring_.assign(2 * length_ + 3, 0.0f);
        setPitch(cents);
        now_ = next_;
        const int32_t back =
            next_.ratio < 1.0f ? static_cast<int32_t>(length_) : static_cast<int32_t>(next_.span);
        for (uint32_t k = 0; k < count_; ++k) {
            const int32_t e = static_cast<int32_t>((k + 1) * spacing_);
            grains_.push_back({true, e - back, static_cast<int32_t>(length_) - e});
        }
    }

    void setPitch(float cents) {
        next_.bypass = cents == 0.0f || std::isnan(cents);
        const float c =
            std::isnan(cents) ? 1200.0f : std::fmax(-1200.0f, std::fmin(1200.0f, cents));
        negative_ = c < 0.0f;
        const double r = std::pow(2.0, c * (1.0 / 1200.0));
        next_.ratio = static_cast<float>(r);
        next_.offset = c >= 0.0f ? static_cast<int32_t>(length_ - r * length_) : 0;
        next_.span = static_cast<uint32_t>(length_ * r) + 3;
    }

private:
    // 4-point cubic read at age x ratio + start.
    void chunk(const float* in, uint32_t n, size_t available, std::vector<float>& out) override {
        for (uint32_t i = 0; i < n; ++i) {
            const float v = frame(now_.offset + static_cast<int32_t>(i), [&](const Grain& g) {
                const double p = static_cast<double>(g.age) * now_.ratio + g.start;
                const int64_t ip = static_cast<int64_t>(p);
                const double t = p - static_cast<double>(ip);
                return keysWeight(1.0 + t) * x(in, available, ip - 3) +
                       keysWeight(t) * x(in, available, ip - 2) +
                       keysWeight(t - 1.0) * x(in, available, ip - 1) +
                       keysWeight(t - 2.0) * x(in, available, ip);
            });
            out.push_back(now_.bypass ? in[i] : v);
        }
        endChunk(in, n);
    }

    bool negative_ = false;
};

class StretchModel : public GrainModel {
public:
    StretchModel(uint32_t rate, float scale, float levelDb, float grainSeconds,
                 float spacingSeconds)
        : GrainModel(rate, levelDb, grainSeconds, spacingSeconds) {
        ring_.assign(8 * length_, 0.0f);
        setScale(scale);
        now_ = next_;
        const int32_t stride = static_cast<int32_t>(spacing_ * static_cast<double>(next_.step));
        const int32_t back = next_.ratio < 1.0f
                                 ? static_cast<int32_t>(length_ * static_cast<double>(next_.step))
                                 : static_cast<int32_t>(length_);
        for (uint32_t k = 0; k < count_; ++k) {
            grains_.push_back({true, static_cast<int32_t>(k + 1) * stride - back,
                               static_cast<int32_t>(length_ - (k + 1) * spacing_)});
        }
    }

    void setScale(float s) {
        next_.bypass = s == 0.0f || std::isnan(s);
        const float c = std::isnan(s) ? 3000.0f : std::fmax(-2000.0f, std::fmin(3000.0f, s));
        next_.ratio = static_cast<float>(std::pow(2.0, -0.001 * c));
        next_.step = 1.0f / next_.ratio;
        const bool shrinking = next_.ratio < 1.0f;
        next_.span =
            shrinking ? static_cast<uint32_t>(length_ * static_cast<double>(next_.step)) : length_;
        next_.offset = shrinking ? 0 : static_cast<int32_t>(length_);
    }

private:
    // trunc(n x factor) output frames; each grain reads one input sample per frame.
    void chunk(const float* in, uint32_t n, size_t available, std::vector<float>& out) override {
        const uint32_t m =
            now_.bypass ? n : static_cast<uint32_t>(static_cast<double>(n) * now_.ratio);
        const uint32_t offset = static_cast<uint32_t>(now_.offset);
        for (uint32_t j = 0; j < m; ++j) {
            const int32_t start =
                static_cast<int32_t>(static_cast<double>(offset + j) * now_.step) -
                static_cast<int32_t>(offset);
            const float v = frame(start, [&](const Grain& g) -> double {
                return x(in, available, static_cast<int64_t>(g.start) + g.age);
            });
            out.push_back(now_.bypass ? in[j] : v);
        }
        endChunk(in, n);
    }
};

// The tests' usual engine: grains of 0.05 s every 0.01 s at 44100 Hz.
constexpr uint32_t kRate = 44100;
constexpr float kGrain = 0.05f;
constexpr float kSpacing = 0.01f;

inline dsp::PitchShiftProcessor* makePitch(uint32_t frames, uint32_t channels, float cents,
                                           float levelDb = 0.0f, float grain = kGrain,
                                           float spacing = kSpacing, uint32_t rate = kRate) {
    return static_cast<dsp::PitchShiftProcessor*>(
        initPitchShift(frames, channels, rate, cents, levelDb, grain, spacing));
}

inline dsp::StretchProcessor* makeStretch(uint32_t frames, uint32_t channels, float scale,
                                          float levelDb = 0.0f, float grain = kGrain,
                                          float spacing = kSpacing, uint32_t rate = kRate) {
    return static_cast<dsp::StretchProcessor*>(
        initStretch(frames, channels, rate, scale, levelDb, grain, spacing));
}

// Two tones and a little deterministic noise.
inline std::vector<float> granularSignal(size_t n) {
    std::vector<float> x(n);
    uint32_t seed = 12345;
    for (size_t i = 0; i < n; ++i) {
        seed = seed * 1664525u + 1013904223u;
        const double noise = static_cast<double>(seed >> 8) / 16777216.0 - 0.5;
        x[i] = static_cast<float>(0.4 * std::sin(0.031 * i) + 0.3 * std::sin(0.21 * i + 1.0) +
                                  0.05 * noise);
    }
    return x;
}

// Runs `in` through channel 0 of a granular processor in blocks of `block`
// frames and joins the outputs.
template <class Processor>
std::vector<float> runBlocks(Processor* p, const std::vector<float>& in, size_t block) {
    std::vector<float> out, buffer(4 * block + 16);
    for (size_t done = 0; done < in.size(); done += block) {
        const uint32_t n = static_cast<uint32_t>(std::min(block, in.size() - done));
        const uint32_t m = p->processChannel(0, in.data() + done, buffer.data(), n);
        out.insert(out.end(), buffer.begin(), buffer.begin() + m);
    }
    return out;
}

} // namespace dsptest

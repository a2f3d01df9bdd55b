// A straightforward model of the wave slicer: the whole signal is band-limited
// with the Butterworth designers and followed with an envelope follower at
// once, then the slice and tracking rules run sample by sample.
#pragma once

#include "analysis/envelope_follower.h"
#include "core/sample_convert.h"
#include "filters/iir_designer.h"

#include <cmath>
#include <cstdint>
#include <vector>

namespace dsptest {

struct SlicePositions {
    uint32_t start;
    uint32_t end;
    bool operator==(const SlicePositions& o) const { return start == o.start && end == o.end; }
};

// Mono input as the slicer sees it: stereo becomes floor((L + R) / 2).
inline std::vector<float> slicerInput(const std::vector<int16_t>& src, uint32_t channels) {
    std::vector<float> x(src.size() / channels);
    for (size_t i = 0; i < x.size(); ++i) {
        const double s = channels == 2 ? std::floor((src[2 * i] + src[2 * i + 1]) / 2.0) : src[i];
        x[i] = dsp::convert::sampleToFloat(static_cast<int32_t>(s));
    }
    return x;
}

class WaveSliceModel {
public:
    WaveSliceModel(uint32_t rate, float startGateDb, float endGateDb, float risePercent,
                   float minSeconds)
        : rate_(static_cast<float>(rate)),
          startGate_(static_cast<float>(std::pow(10.0, startGateDb * 0.05))),
          endGate_(static_cast<float>(std::pow(10.0, endGateDb * 0.05))),
          rise_(static_cast<float>(0.01 * risePercent)),
          minLength_(static_cast<uint32_t>(static_cast<double>(rate_) * minSeconds)) {}

    // The envelope of a whole signal; no 20 kHz low-pass at 40 kHz and below,
    // no 2 kHz high-pass at 4 kHz and below.
    std::vector<float> envelope(std::vector<float> x) const {
        const uint32_t n = static_cast<uint32_t>(x.size());
        for (int kind : {0, 1}) {
            if (rate_ > (kind == 0 ? 40000.0f : 4000.0f)) {
                dsp::ButterworthDesigner filter;
                filter.setOrder(16, kind);
                filter.design(rate_, kind == 0 ? 20000.0f : 2000.0f);
                filter.process(x.data(), x.data(), n);
            }
        }
        dsp::EnvelopeFollower follower;
        follower.setup(n, rate_, 2, 33.0f, 2.5f, 0, 1.0f);
        std::vector<float> e(n);
        follower.follow(x.data(), e.data(), static_cast<int32_t>(n));
        return e;
    }

    // The rules over envelope values; the host read the slices (closing an
    // open one) at the positions in `closeAt`.
    std::vector<SlicePositions> slices(const std::vector<float>& env,
                                       const std::vector<uint32_t>& closeAt = {}) const {
        std::vector<SlicePositions> out;
        bool open = false, armed = false, seekingValley = true;
        float valley = 1.0f, peak = 0.0f;
        uint32_t valleyPos = 0, start = 0;
        size_t nextClose = 0;
        for (uint32_t pos = 0; pos <= env.size(); ++pos) {
            for (; nextClose < closeAt.size() && closeAt[nextClose] == pos; ++nextClose) {
                if (open) {
                    out.push_back({start, pos});
                    open = false;
                }
            }
            if (pos == env.size()) {
                break;
            }
            const float e = env[pos];
            const bool attack = e >= startGate_ && armed && e - valley >= rise_;
            const bool longEnough = open && pos - start > minLength_;
            if (open && e < endGate_ && longEnough) {
                out.push_back({start, pos});
                open = false;
            } else if (attack && (!open || longEnough)) {
                if (open) {
                    out.push_back({start, valleyPos});
                }
                armed = false;
                open = true;
                start = valleyPos;
            }
            if (seekingValley ? e > valley : e >= peak) {
                armed = armed || seekingValley;
                seekingValley = false;
                peak = e;
            } else {
                armed = armed && seekingValley;
                seekingValley = true;
                valley = e;
                valleyPos = pos;
            }
        }
        return out;
    }

    // Seconds of a sample position: the product rounded to float.
    float seconds(uint32_t pos) const {
        return static_cast<float>(static_cast<double>(pos) * static_cast<double>(1.0f / rate_));
    }

private:
    float rate_, startGate_, endGate_, rise_;
    uint32_t minLength_;
};

} // namespace dsptest

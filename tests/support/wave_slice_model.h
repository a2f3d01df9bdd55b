// A straightforward model of the wave slicer for the tests: the signal is
// band-limited with the Butterworth designers and followed with an envelope
// follower over the whole signal at once, then the slice and tracking rules
// are applied sample by sample. Slices are kept as sample positions.
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

// Mono float input as the slicer sees it: stereo becomes (L + R) >> 1 (the
// shift rounds toward minus infinity), then the 1/32767 scale.
inline std::vector<float> slicerInput(const std::vector<int16_t>& src, uint32_t channels) {
    std::vector<float> x(src.size() / channels);
    for (size_t i = 0; i < x.size(); ++i) {
        int32_t s = src[i * channels];
        if (channels == 2) {
            const int32_t sum = s + src[i * 2 + 1];
            s = static_cast<int32_t>(std::floor(sum / 2.0));
        }
        x[i] = dsp::convert::sampleToFloat(s);
    }
    return x;
}

class WaveSliceModel {
public:
    WaveSliceModel(uint32_t rate, float startGateDb, float endGateDb, float risePercent,
                   float minSeconds)
        : rate_(static_cast<float>(rate)) {
        startGate_ = static_cast<float>(std::pow(10.0, startGateDb * 0.05));
        endGate_ = static_cast<float>(std::pow(10.0, endGateDb * 0.05));
        rise_ = static_cast<float>(0.01 * risePercent);
        minLength_ = static_cast<uint32_t>(static_cast<double>(rate_) * minSeconds);
        upper_.setOrder(16, 0);
        lower_.setOrder(16, 1);
        useUpper_ = rate_ > 40000.0f;
        useLower_ = rate_ > 4000.0f;
        if (useUpper_) {
            upper_.design(rate_, 20000.0f);
        }
        if (useLower_) {
            lower_.design(rate_, 2000.0f);
        }
    }

    // The envelope of a whole signal (filters run from their initial state).
    std::vector<float> envelope(const std::vector<float>& x) {
        std::vector<float> band(x);
        if (useUpper_) {
            upper_.process(band.data(), band.data(), static_cast<uint32_t>(band.size()));
        }
        if (useLower_) {
            lower_.process(band.data(), band.data(), static_cast<uint32_t>(band.size()));
        }
        dsp::EnvelopeFollower follower;
        follower.setup(static_cast<uint32_t>(band.size()), rate_, 2, 33.0f, 2.5f, 0, 1.0f);
        std::vector<float> e(band.size());
        follower.follow(band.data(), e.data(), static_cast<int32_t>(band.size()));
        return e;
    }

    // Applies the rules to envelope values; `closeAt` lists positions at which
    // the host read the slices (closing an open one there).
    std::vector<SlicePositions> slices(const std::vector<float>& env,
                                       const std::vector<uint32_t>& closeAt = {}) {
        std::vector<SlicePositions> out;
        bool open = false;
        bool armed = false;
        bool seekingValley = true;
        float valley = 1.0f;
        float peak = 0.0f;
        uint32_t valleyPos = 0;
        uint32_t start = 0;
        size_t nextClose = 0;
        for (uint32_t pos = 0; pos <= env.size(); ++pos) {
            while (nextClose < closeAt.size() && closeAt[nextClose] == pos) {
                if (open) {
                    out.push_back({start, pos});
                    open = false;
                }
                ++nextClose;
            }
            if (pos == env.size()) {
                break;
            }
            const float e = env[pos];
            const bool attack = e >= startGate_ && armed && e - valley >= rise_;
            if (open) {
                const bool longEnough = pos - start > minLength_;
                if (e < endGate_ && longEnough) {
                    out.push_back({start, pos});
                    open = false;
                } else if (attack && longEnough) {
                    out.push_back({start, valleyPos});
                    armed = false;
                    start = valleyPos;
                }
            } else if (attack) {
                armed = false;
                open = true;
                start = valleyPos;
            }
            if (seekingValley) {
                if (e > valley) {
                    peak = e;
                    seekingValley = false;
                    armed = true;
                } else {
                    valley = e;
                    valleyPos = pos;
                }
            } else if (e < peak) {
                valley = e;
                valleyPos = pos;
                armed = false;
                seekingValley = true;
            } else {
                peak = e;
            }
        }
        return out;
    }

    // Seconds of a sample position: the product rounded to float.
    float seconds(uint32_t pos) const {
        const float perSample = 1.0f / rate_;
        return static_cast<float>(static_cast<double>(pos) * static_cast<double>(perSample));
    }

private:
    float rate_;
    float startGate_;
    float endGate_;
    float rise_;
    uint32_t minLength_;
    bool useUpper_;
    bool useLower_;
    dsp::ButterworthDesigner upper_;
    dsp::ButterworthDesigner lower_;
};

} // namespace dsptest

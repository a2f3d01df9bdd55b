// An independent statement of the fader arithmetic for the tests: the
// decibel gain read from a table built here, and a per-sample ramp that runs
// a schedule given as a plain list.
#pragma once

#include <cmath>
#include <cstdint>
#include <deque>
#include <vector>

namespace dsptest {

// Gain for a level in dB: 2049 entries over -50 .. +50 dB, position
// (level + 50) * 20.48 (float constants), wrapped linear interpolation in double.
inline float modelDecibelGain(float levelDb) {
    static const std::vector<float> table = [] {
        std::vector<float> t(2049);
        for (int k = 0; k <= 2048; ++k) {
            t[k] = static_cast<float>(std::pow(10.0, (k * (100.0 / 2048.0) - 50.0) / 20.0));
        }
        return t;
    }();
    double x =
        (static_cast<double>(levelDb) + static_cast<double>(50.0f)) * static_cast<double>(20.48f);
    int32_t i = static_cast<int32_t>(x); // the tests keep levels in range
    uint32_t j = static_cast<uint32_t>(i) & 2047u;
    return static_cast<float>(table[j] + (x - i) * (static_cast<double>(table[j + 1]) - table[j]));
}

struct ModelAction {
    uint32_t start;
    uint32_t end;
    float target;
};

struct ModelCurve {
    float centre = -1.0f;
    float fall = -40.0f;
    float rise = 0.05f;
    float fallWidth = 0.8f;
};

// Gains of the two cross-fader inputs at position x.
inline void modelCrossGains(const ModelCurve& c, float x, float& gainA, float& gainB) {
    float riseA = c.rise == 0.0f ? 0.0f : -c.centre / c.rise;
    float fallA = (c.centre - c.fall) / c.fallWidth;
    float riseB = c.rise == 0.0f ? 0.0f : c.centre / c.rise;
    float fallB = (c.fall - c.centre) / c.fallWidth;
    if (x > c.rise) {
        gainA = 1.0f;
    } else if (x >= 0.0f) {
        gainA = modelDecibelGain(
            static_cast<float>(static_cast<double>(c.centre) + static_cast<double>(riseA) * x));
    } else if (x >= -c.fallWidth) {
        gainA = modelDecibelGain(
            static_cast<float>(static_cast<double>(c.centre) + static_cast<double>(fallA) * x));
    } else {
        gainA = 0.0f;
    }
    if (x < -c.rise) {
        gainB = 1.0f;
    } else if (x <= 0.0f) {
        gainB = modelDecibelGain(
            static_cast<float>(static_cast<double>(c.centre) + static_cast<double>(riseB) * x));
    } else if (x <= c.fallWidth) {
        gainB = modelDecibelGain(
            static_cast<float>(static_cast<double>(c.centre) + static_cast<double>(fallB) * x));
    } else {
        gainB = 0.0f;
    }
}

// One ramp: a level (or cross position) scheduled by actions, evaluated per
// sample. An action is first evaluated at its start, its end sample keeps the
// previous gain, and the next action starts from its target.
class ModelRamp {
public:
    ModelRamp(float level, std::vector<ModelAction> schedule, bool isCross = false,
              ModelCurve curve = ModelCurve())
        : startLevel_(level), cross_(isCross), curve_(curve),
          actions_(schedule.begin(), schedule.end()) {
        evaluate(level);
        if (!actions_.empty()) {
            updateSlope();
        }
    }

    // Advances one sample; returns the gain applied to it (gainA/gainB for a
    // cross-fader are left in the accessors).
    float step() {
        if (!active_ && !actions_.empty() && p_ >= actions_.front().start) {
            active_ = true;
        } else if (active_ && p_ >= actions_.front().end) {
            active_ = false;
            startLevel_ = actions_.front().target;
            actions_.pop_front();
            if (!actions_.empty()) {
                updateSlope();
            }
        }
        if (active_) {
            float x = static_cast<float>(static_cast<double>(startLevel_) +
                                         static_cast<double>(p_ - actions_.front().start) * slope_);
            if (cross_) {
                x = x < -1.0f ? -1.0f : (x > 1.0f ? 1.0f : x);
            }
            evaluate(x);
        }
        ++p_;
        return gain_;
    }

    float gainA() const { return gainA_; }
    float gainB() const { return gainB_; }

private:
    void updateSlope() {
        const ModelAction& a = actions_.front();
        slope_ = static_cast<float>((static_cast<double>(a.target) - startLevel_) /
                                    static_cast<double>(a.end - a.start));
    }
    void evaluate(float x) {
        if (cross_) {
            modelCrossGains(curve_, x, gainA_, gainB_);
        } else {
            gain_ = modelDecibelGain(x);
        }
    }

    float startLevel_;
    bool cross_;
    ModelCurve curve_;
    std::deque<ModelAction> actions_;
    float slope_ = 0.0f;
    float gain_ = 0.0f;
    float gainA_ = 0.0f;
    float gainB_ = 0.0f;
    bool active_ = false;
    uint32_t p_ = 0;
};

// Level a ramp from `from` to `to` over [start, end) reaches at `at`.
inline float modelLevelReached(float from, float to, uint32_t start, uint32_t end, uint32_t at) {
    float s =
        static_cast<float>((static_cast<double>(to) - from) / static_cast<double>(end - start));
    return static_cast<float>(static_cast<double>(from) + static_cast<double>(at - start) * s);
}

} // namespace dsptest

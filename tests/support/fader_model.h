// An independent model of the fader arithmetic: the decibel gain from a table
// built here, and a per-sample ramp running a schedule given as a plain list.
#pragma once

#include <cmath>
#include <cstdint>
#include <deque>
#include <vector>

namespace dsptest {

// 2049 entries over -50 .. +50 dB; position (level + 50) * 20.48 (float
// constants), wrapped linear interpolation in double.
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
    float centre = -1.0f, fall = -40.0f, rise = 0.05f, fallWidth = 0.8f;
};

// Gains of the two cross-fader inputs at position x; input B is input A
// mirrored about position 0.
inline void modelCrossGains(const ModelCurve& c, float x, float& gainA, float& gainB) {
    auto side = [&c](float pos, float sign) {
        float riseSlope = c.rise == 0.0f ? 0.0f : -sign * c.centre / c.rise;
        float fallSlope = sign * (c.centre - c.fall) / c.fallWidth;
        if (sign * pos > c.rise) {
            return 1.0f;
        }
        bool rising = sign > 0 ? pos >= 0.0f : pos <= 0.0f;
        if (!rising && sign * pos < -c.fallWidth) {
            return 0.0f;
        }
        double slope = rising ? riseSlope : fallSlope;
        return modelDecibelGain(static_cast<float>(static_cast<double>(c.centre) + slope * pos));
    };
    gainA = side(x, 1.0f);
    gainB = side(x, -1.0f);
}

// One ramp: an action is first evaluated at its start, its end sample keeps
// the previous gain, and the next action starts from its target.
class ModelRamp {
public:
    ModelRamp(float level, std::vector<ModelAction> schedule, bool isCross = false,
              ModelCurve curve = ModelCurve())
        : startLevel_(level), cross_(isCross), curve_(curve),
          actions_(schedule.begin(), schedule.end()) {
        evaluate(level);
    }

    // Advances one sample and returns its gain (gainA/gainB for a cross-fader).
    float step() {
        if (!active_ && !actions_.empty() && p_ >= actions_.front().start) {
            active_ = true;
        } else if (active_ && p_ >= actions_.front().end) {
            active_ = false;
            startLevel_ = actions_.front().target;
            actions_.pop_front();
        }
        if (active_) {
            const ModelAction& a = actions_.front();
            float slope = static_cast<float>((static_cast<double>(a.target) - startLevel_) /
                                             static_cast<double>(a.end - a.start));
            float x = static_cast<float>(static_cast<double>(startLevel_) +
                                         static_cast<double>(p_ - a.start) * slope);
            evaluate(cross_ ? std::fmin(1.0f, std::fmax(-1.0f, x)) : x);
        }
        ++p_;
        return gain_;
    }

    float gainA() const { return gainA_; }
    float gainB() const { return gainB_; }

private:
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
    float gain_ = 0.0f, gainA_ = 0.0f, gainB_ = 0.0f;
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

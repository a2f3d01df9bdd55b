// An independent model of the chorus loop: a sine table built here, one
// history per voice, the LFO time wrapped by whole periods.
#pragma once

#include <cmath>
#include <cstdint>
#include <vector>

namespace dsptest {

class ChorusModel {
public:
    ChorusModel(uint32_t rate, uint32_t voices, float delayMs, float depthMs, float speed,
                float mixPercent, float orgMixPercent)
        : histories_(voices, std::vector<float>(65536, 0.0f)),
          mix_(voices, static_cast<float>(0.01 * mixPercent)), rate_(rate),
          msPerSample_(static_cast<float>(1000.0 / rate)) {
        setDelayTime(delayMs);
        setDepth(depthMs);
        setSpeed(speed);
        setOrgMix(orgMixPercent);
        for (int k = 0; k <= 1024; ++k) {
            sine_[k] = static_cast<float>(std::sin(k * (kTwoPi / 1024.0)));
        }
        for (uint32_t v = 0; v < voices; ++v) {
            offsets_.push_back(static_cast<float>(v * (kTwoPi / voices)));
        }
    }

    float step(float in) {
        const double phase = lfoTime_ * (kTwoPi * cyclesPerMs_);
        double acc = 0.0;
        for (size_t v = 0; v < histories_.size(); ++v) {
            double t =
                (offsets_[v] + phase) * static_cast<double>(static_cast<float>(1024.0 / kTwoPi));
            int32_t i = static_cast<int32_t>(t), j = i & 1023;
            double lfo = sine_[j] + (t - i) * (static_cast<double>(sine_[j + 1]) - sine_[j]);
            uint32_t d = static_cast<uint32_t>(static_cast<int32_t>(delay_ + lfo * depth_));
            acc += static_cast<double>(histories_[v][(write_ - d) & 65535u]) * mix_[v];
            histories_[v][write_] = in;
        }
        write_ = (write_ + 1) & 65535u;
        lfoTime_ += msPerSample_;
        if (lfoTime_ >= periodMs_ && periodMs_ > 0.0f) {
            int32_t k = static_cast<int32_t>(lfoTime_ / static_cast<double>(periodMs_));
            lfoTime_ = static_cast<float>(lfoTime_ - static_cast<double>(k) * periodMs_);
        }
        return static_cast<float>(acc + static_cast<double>(in) * orgMix_);
    }

    void setVoiceMix(uint32_t v, float percent) { mix_[v] = static_cast<float>(0.01 * percent); }
    void setOrgMix(float percent) { orgMix_ = static_cast<float>(0.01 * percent); }
    void setDelayTime(float ms) {
        delay_ = static_cast<uint32_t>(static_cast<double>(rate_) * ms * 0.001);
    }
    void setDepth(float ms) { depth_ = static_cast<float>(ms * 0.001 * rate_); }
    void setSpeed(float seconds) {
        periodMs_ = static_cast<float>(1000.0 * seconds);
        cyclesPerMs_ = seconds == 0.0f ? 0.0f : static_cast<float>(1.0 / (1000.0 * seconds));
    }

private:
    static constexpr double kTwoPi = 6.283185307179586;
    std::vector<std::vector<float>> histories_;
    std::vector<float> mix_, offsets_;
    float sine_[1025];
    uint32_t rate_;
    float msPerSample_;
    uint32_t delay_ = 0;
    float depth_ = 0.0f, periodMs_ = 0.0f, cyclesPerMs_ = 0.0f, orgMix_ = 0.0f;
    float lfoTime_ = 0.0f;
    uint32_t write_ = 0;
};

} // namespace dsptest

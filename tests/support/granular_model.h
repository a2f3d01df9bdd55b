// Straightforward models of the granular engines' per-sample grain loops,
// written from the stated arithmetic, to check the library's output sample
// for sample. They keep their own copies of every rule (window, pending
// settings, history ring, 32768-sample blocks).
#pragma once

#include "core/cubic_weight.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace dsptest {

struct ModelGrain {
    bool active;
    int32_t start;
    int32_t age;
};

inline std::vector<float> modelWindow(uint32_t length) {
    std::vector<float> w(length);
    for (uint32_t i = 0; i < length; ++i) {
        double x = 13.0 * i / length - 6.5;
        w[i] = static_cast<float>(std::exp(-0.25 * x * x));
    }
    return w;
}

// History ring: x[-m] = ring[(writeIndex + m - 1) mod span].
struct ModelRing {
    std::vector<float> data;
    uint32_t writeIndex = 0;
    float past(uint32_t span, int64_t k) const {
        int64_t m = -k;
        return data[static_cast<size_t>((writeIndex + m - 1) % span)];
    }
    void store(uint32_t span, const float* in, uint32_t n) {
        if (span > n) {
            writeIndex = (span + writeIndex - n) % span;
            for (uint32_t i = 1; i <= n; ++i) {
                data[(writeIndex + i - 1) % span] = in[n - i];
            }
        } else {
            for (uint32_t i = 1; i <= span; ++i) {
                data[(writeIndex + i - 1) % span] = in[n - i];
            }
        }
    }
};

class PitchModel {
public:
    PitchModel(uint32_t rate, float cents, float levelDb, float grainSeconds,
               float spacingSeconds) {
        float r = static_cast<float>(rate);
        length_ = static_cast<uint32_t>(static_cast<double>(r) * grainSeconds * 1.5330188679245282);
        spacing_ = static_cast<uint32_t>(static_cast<double>(r) * spacingSeconds);
        count_ = length_ / spacing_;
        level_ = static_cast<float>(std::pow(10.0, 0.05 * levelDb));
        window_ = modelWindow(length_);
        ring_.data.assign(2 * length_ + 3, 0.0f);
        setPitch(cents);
        now_ = next_;
        int32_t back =
            clampedNegative_ ? static_cast<int32_t>(length_) : static_cast<int32_t>(next_.span);
        for (uint32_t k = 0; k < count_; ++k) {
            int32_t e = static_cast<int32_t>((k + 1) * spacing_);
            grains_.push_back({true, e - back, static_cast<int32_t>(length_) - e});
        }
    }

    void setPitch(float cents) {
        next_.bypass = cents == 0.0f || std::isnan(cents);
        float c = std::isnan(cents) ? 1200.0f : std::fmax(-1200.0f, std::fmin(1200.0f, cents));
        clampedNegative_ = c < 0.0f;
        double r = std::pow(2.0, c * (1.0 / 1200.0));
        next_.ratio = static_cast<float>(r);
        next_.offset = c >= 0.0f ? static_cast<int32_t>(length_ - r * length_) : 0;
        next_.span = static_cast<uint32_t>(length_ * r) + 3;
    }
    void setLevel(float levelDb) { level_ = static_cast<float>(std::pow(10.0, 0.05 * levelDb)); }

    std::vector<float> run(const std::vector<float>& in) {
        std::vector<float> out;
        for (size_t done = 0; done < in.size();) {
            size_t n = std::min<size_t>(in.size() - done, 32768);
            block(in.data() + done, static_cast<uint32_t>(n), in.size() - done, out);
            done += n;
        }
        return out;
    }

private:
    struct Settings {
        bool bypass;
        float ratio;
        int32_t offset;
        uint32_t span;
    };

    // x[k] is in[k] also past the chunk, where the call's later samples
    // lie; a read past the whole call (possible only right after a change
    // of pitch) takes the call's last sample.
    float x(const float* in, size_t available, int64_t k) const {
        return k >= 0 ? in[std::min<int64_t>(k, static_cast<int64_t>(available) - 1)]
                      : ring_.past(now_.span, k);
    }

    // One chunk of n samples; `available` samples of the call start at in.
    void block(const float* in, uint32_t n, size_t available, std::vector<float>& out) {
        for (uint32_t i = 0; i < n; ++i) {
            if (phase_ == 0) {
                for (ModelGrain& g : grains_) {
                    if (!g.active) {
                        g = {true, now_.offset + static_cast<int32_t>(i), 0};
                        break;
                    }
                }
            }
            phase_ = (phase_ + 1) % spacing_;
            double acc = 0.0;
            double wsum = 0.0;
            for (ModelGrain& g : grains_) {
                if (!g.active) {
                    continue;
                }
                if (!now_.bypass) {
                    double p = static_cast<double>(g.age) * now_.ratio + g.start;
                    int64_t ip = static_cast<int64_t>(p);
                    double t = p - static_cast<double>(ip);
                    double v = dsp::cubicWeight(std::fabs(1.0 + t)) * x(in, available, ip - 3) +
                               dsp::cubicWeight(std::fabs(t)) * x(in, available, ip - 2) +
                               dsp::cubicWeight(std::fabs(t - 1.0)) * x(in, available, ip - 1) +
                               dsp::cubicWeight(std::fabs(t - 2.0)) * x(in, available, ip);
                    acc += v * window_[g.age];
                    wsum += window_[g.age];
                }
                g.age += 1;
                g.active = g.age < static_cast<int32_t>(length_);
            }
            if (now_.bypass) {
                out.push_back(in[i]);
            } else {
                out.push_back(wsum > 0.0 ? static_cast<float>(level_ / wsum * acc) : 0.0f);
            }
        }
        for (ModelGrain& g : grains_) {
            if (g.active) {
                g.start -= static_cast<int32_t>(n);
            }
        }
        now_ = next_;
        ring_.store(now_.span, in, n);
    }

    uint32_t length_, spacing_, count_;
    float level_;
    bool clampedNegative_ = false;
    std::vector<float> window_;
    std::vector<ModelGrain> grains_;
    ModelRing ring_;
    Settings now_{}, next_{};
    uint32_t phase_ = 0;
};

class StretchModel {
public:
    StretchModel(uint32_t rate, float scale, float levelDb, float grainSeconds,
                 float spacingSeconds) {
        float r = static_cast<float>(rate);
        length_ = static_cast<uint32_t>(static_cast<double>(r) * grainSeconds * 1.5330188679245282);
        spacing_ = static_cast<uint32_t>(static_cast<double>(r) * spacingSeconds);
        count_ = length_ / spacing_;
        level_ = static_cast<float>(std::pow(10.0, 0.05 * levelDb));
        window_ = modelWindow(length_);
        ring_.data.assign(8 * length_, 0.0f);
        setScale(scale);
        now_ = next_;
        int32_t stride = static_cast<int32_t>(spacing_ * static_cast<double>(next_.step));
        int32_t back = next_.factor < 1.0f
                           ? static_cast<int32_t>(length_ * static_cast<double>(next_.step))
                           : static_cast<int32_t>(length_);
        for (uint32_t k = 0; k < count_; ++k) {
            grains_.push_back({true, static_cast<int32_t>(k + 1) * stride - back,
                               static_cast<int32_t>(length_ - (k + 1) * spacing_)});
        }
    }

    void setScale(float s) {
        next_.bypass = s == 0.0f || std::isnan(s);
        float c = std::isnan(s) ? 3000.0f : std::fmax(-2000.0f, std::fmin(3000.0f, s));
        next_.factor = static_cast<float>(std::pow(2.0, -0.001 * c));
        next_.step = 1.0f / next_.factor;
        if (next_.factor < 1.0f) {
            next_.span = static_cast<uint32_t>(length_ * static_cast<double>(next_.step));
            next_.offset = 0;
        } else {
            next_.span = length_;
            next_.offset = length_;
        }
    }

    // Processes one block as the library would (in 32768-frame pieces) and
    // appends its output to `out`.
    void run(const std::vector<float>& in, std::vector<float>& out) {
        for (size_t done = 0; done < in.size();) {
            size_t n = std::min<size_t>(in.size() - done, 32768);
            block(in.data() + done, static_cast<uint32_t>(n), in.size() - done, out);
            done += n;
        }
    }

private:
    struct Settings {
        bool bypass;
        float factor;
        float step;
        uint32_t offset;
        uint32_t span;
    };

    // One chunk of n frames; `available` frames of the call start at in.
    void block(const float* in, uint32_t n, size_t available, std::vector<float>& out) {
        uint32_t m = now_.bypass ? n : static_cast<uint32_t>(static_cast<double>(n) * now_.factor);
        for (uint32_t j = 0; j < m; ++j) {
            if (phase_ == 0) {
                for (ModelGrain& g : grains_) {
                    if (!g.active) {
                        int32_t s =
                            static_cast<int32_t>(static_cast<double>(now_.offset + j) * now_.step) -
                            static_cast<int32_t>(now_.offset);
                        g = {true, s, 0};
                        break;
                    }
                }
            }
            phase_ = (phase_ + 1) % spacing_;
            double acc = 0.0;
            double wsum = 0.0;
            for (ModelGrain& g : grains_) {
                if (!g.active) {
                    continue;
                }
                if (!now_.bypass) {
                    int64_t p = static_cast<int64_t>(g.start) + g.age;
                    // Past the chunk lie the call's later frames; a read
                    // past the whole call (possible only right after a
                    // change of scale) takes the call's last frame.
                    double v = p >= 0
                                   ? in[std::min<int64_t>(p, static_cast<int64_t>(available) - 1)]
                                   : ring_.past(now_.span, p);
                    acc += v * window_[g.age];
                    wsum += window_[g.age];
                }
                g.age += 1;
                g.active = g.age < static_cast<int32_t>(length_);
            }
            if (now_.bypass) {
                out.push_back(in[j]);
            } else {
                out.push_back(wsum > 0.0 ? static_cast<float>(acc * (level_ / wsum)) : 0.0f);
            }
        }
        for (ModelGrain& g : grains_) {
            if (g.active) {
                g.start -= static_cast<int32_t>(n);
            }
        }
        now_ = next_;
        ring_.store(now_.span, in, n);
    }

    uint32_t length_, spacing_, count_;
    float level_;
    std::vector<float> window_;
    std::vector<ModelGrain> grains_;
    ModelRing ring_;
    Settings now_{}, next_{};
    uint32_t phase_ = 0;
};

} // namespace dsptest

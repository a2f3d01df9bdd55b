// A straightforward model of the chunked rate conversion, written apart from
// the library code to check it sample for sample: output counts, chunk
// shares, linear and 4-point cubic interpolation with the three carried
// samples. No filter; tests add the IIR pass themselves.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace dsptest {

// trunc((n / from) * to), divided first, in double.
inline uint32_t scaledFrames(uint32_t n, uint32_t from, uint32_t to) {
    return static_cast<uint32_t>(std::trunc((static_cast<double>(n) / from) * to));
}

// Cubic convolution weight with a = -1, of |t|.
inline double keysWeight(double t) {
    t = std::fabs(t);
    if (t < 1.0) {
        return 1.0 - 2.0 * t * t + t * t * t;
    }
    return t < 2.0 ? 4.0 - 8.0 * t + 5.0 * t * t - t * t * t : 0.0;
}

class RateModel {
public:
    RateModel(uint32_t srcRate, uint32_t dstRate, bool cubic)
        : srcRate_(srcRate), dstRate_(dstRate), cubic_(cubic) {}

    // Output of one block; the carried cubic samples persist between calls.
    std::vector<float> convert(const std::vector<float>& in) {
        const uint32_t n = static_cast<uint32_t>(in.size());
        const uint32_t total = scaledFrames(n, srcRate_, dstRate_);
        if (srcRate_ == dstRate_) {
            return std::vector<float>(in.begin(), in.begin() + total);
        }
        std::vector<float> out;
        const uint32_t share = scaledFrames(4096, srcRate_, dstRate_);
        for (uint32_t start = 0; start < n; start += 4096) {
            const uint32_t length = n - start < 4096 ? n - start : 4096;
            const uint32_t owed = total - static_cast<uint32_t>(out.size());
            const uint32_t count = start + length == n ? owed : std::min(owed, share);
            std::vector<float> chunk(in.begin() + start, in.begin() + start + length);
            chunkSizes.push_back(count);
            cubic_ ? cubicChunk(chunk, count, out) : linearChunk(chunk, count, out);
        }
        return out;
    }

    std::vector<uint32_t> chunkSizes; // output frames of every chunk so far

private:
    double step() const { return static_cast<double>(srcRate_) / dstRate_; }

    void linearChunk(const std::vector<float>& s, uint32_t count, std::vector<float>& out) const {
        const int64_t length = static_cast<int64_t>(s.size());
        double pos = 0.0;
        for (uint32_t j = 0; j + 1 < count; ++j, pos += step()) {
            if (length == 1) {
                out.push_back(s[0]);
                continue;
            }
            const size_t i = static_cast<size_t>(
                std::min<int64_t>(static_cast<int64_t>(std::floor(pos)), length - 2));
            const double frac = pos - std::floor(pos);
            const double a = s[i];
            const double b = s[i + 1];
            out.push_back(static_cast<float>(a + frac * (b - a)));
        }
        if (count > 0) {
            out.push_back(s.back()); // every chunk ends on its last frame
        }
    }

    void cubicChunk(const std::vector<float>& s, uint32_t count, std::vector<float>& out) {
        // h[k] = source frame k - 3 of the chunk.
        std::vector<float> h(carried_, carried_ + 3);
        h.insert(h.end(), s.begin(), s.end());
        for (int k = 0; k < 3; ++k) {
            carried_[k] = h[h.size() - 3 + static_cast<size_t>(k)];
        }
        const int64_t length = static_cast<int64_t>(s.size());
        double pos = 1.0;
        for (uint32_t j = 0; j + 1 < count; ++j, pos += step()) {
            const int64_t i = std::max<int64_t>(
                1, std::min<int64_t>(static_cast<int64_t>(std::trunc(pos)), length - 1));
            const size_t k = static_cast<size_t>(i);
            const double d = pos - std::trunc(pos);
            const double v = keysWeight(d - 1.0) * h[k + 1] + keysWeight(d - 2.0) * h[k + 2] +
                             keysWeight(d) * h[k] + keysWeight(d + 1.0) * h[k - 1];
            out.push_back(static_cast<float>(v));
        }
        if (count > 0) {
            out.push_back(h[static_cast<size_t>(length)]);
        }
    }

    uint32_t srcRate_;
    uint32_t dstRate_;
    bool cubic_;
    float carried_[3] = {0.0f, 0.0f, 0.0f};
};

} // namespace dsptest

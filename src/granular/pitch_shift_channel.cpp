#include "pitch_shift_channel.h"

#include "core/cubic_weight.h"
#include "core/numeric.h"
#include "grain_history.h"
#include "grain_setup.h"

#include <cmath>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace dsp {

namespace {
// Grains up to this length (about 0.48 s at 44100 Hz: 2 MiB of weights and
// 0.5 MiB of linear history per channel) get the weight table and the linear
// copy of the history; longer ones read the ring and evaluate every weight.
constexpr uint32_t kMaxFastPathLength = 1u << 15;
} // namespace

PitchShiftChannel::~PitchShiftChannel() {
    delete[] ring;
    delete[] window;
    delete[] grains;
    delete[] line_;
    delete[] weights_;
}

bool PitchShiftChannel::setup(uint32_t sampleRate, float cents, float levelDb, float grainSeconds,
                              float spacingSeconds) {
    granular::GrainGeometry geometry;
    if (!granular::grainGeometryFor(sampleRate, grainSeconds, spacingSeconds, &geometry)) {
        return false;
    }
    const uint32_t newLength = geometry.length;
    const uint32_t ringSize = 2 * newLength + 3;
    // The span never exceeds the ring size, and a chunk holds at most
    // kMaxChunkFrames samples.
    const uint32_t lineSize = ringSize + granular::kMaxChunkFrames;
    const bool fastPaths = newLength <= kMaxFastPathLength;

    // Allocate everything first, so a failure leaves the running engine intact.
    granular::ArrayGrowth<float> newRing, newWindow;
    granular::ArrayGrowth<Grain> newGrains;
    granular::ArrayGrowth<double> newLine, newWeights;
    if (!newRing.prepare(ring == nullptr || ringSize > ringCapacity_, ringSize) ||
        !newWindow.prepare(window == nullptr || newLength > windowCapacity_, newLength) ||
        !newGrains.prepare(grains == nullptr || geometry.count > grainCapacity_, geometry.count) ||
        !newLine.prepare(fastPaths && (line_ == nullptr || lineSize > lineCapacity_), lineSize) ||
        !newWeights.prepare(fastPaths && (weights_ == nullptr || newLength > weightCapacity_),
                            static_cast<size_t>(newLength) * 8)) {
        return false;
    }
    if (newWeights.install(weights_)) {
        weightCapacity_ = newLength;
    }
    weightAges_ = 0; // refilled for the new length and ratio
    if (newLine.install(line_)) {
        lineCapacity_ = lineSize;
    }
    if (newRing.install(ring)) {
        ringCapacity_ = ringSize;
    }
    if (newWindow.install(window)) {
        windowCapacity_ = newLength;
    }
    if (newGrains.install(grains)) {
        grainCapacity_ = geometry.count;
    }

    rate = geometry.rate;
    grainLength = newLength;
    setPitch(cents); // uses the new grain length
    spacing = geometry.spacing;
    grainCount = geometry.count;
    outLevel = granular::levelFromDb(levelDb);

    // Reach back: the grain length for pitch down (each record reads from
    // the sample it began on), the pending span otherwise.
    const int64_t back =
        pitchCents < 0.0f ? static_cast<int64_t>(grainLength) : static_cast<int64_t>(spanPending);
    granular::resetGrains(ring, ringSize, window, grains, geometry, spacing, back);

    writeIndex = 0;
    spawnPhase = 0;
    span = spanPending;
    ratio = ratioPending;
    offset = offsetPending;
    bypass = bypassPending;
    ready = 1;
    return true;
}

void PitchShiftChannel::setPitch(float cents) {
    // Only exactly 0 bypasses; a pitch that is not a number counts as 0 here
    // and is stored as +1200 below.
    bypassPending = (cents == 0.0f || std::isnan(cents)) ? 1 : 0;
    float clamped = cents;
    if (clamped < -1200.0f) {
        clamped = -1200.0f;
    } else if (!(clamped <= 1200.0f)) {
        clamped = 1200.0f;
    }
    pitchCents = clamped;
    double r = std::pow(2.0, static_cast<double>(clamped) * (1.0 / 1200.0));
    ratioPending = static_cast<float>(r);
    double length = static_cast<double>(grainLength);
    offsetPending = clamped >= 0.0f ? truncToInt32(length - r * length) : 0;
    spanPending = truncToUint32(length * r) + 3;
}

void PitchShiftChannel::setOutLevel(float levelDb) {
    outLevel = granular::levelFromDb(levelDb);
}

void PitchShiftChannel::process(const float* in, float* out, uint32_t frames) {
    if (ready != 1) {
        return;
    }
    while (frames > 0) {
        uint32_t block = frames < granular::kMaxChunkFrames ? frames : granular::kMaxChunkFrames;
        processBlock(in, out, block, frames);
        in += block;
        out += block;
        frames -= block;
    }
}

namespace {

// The cubic convolution weights of the four taps at fraction t, summed in tap
// order: exactly cubicWeight(|1 + t|), cubicWeight(|t|), cubicWeight(|t - 1|)
// and cubicWeight(|t - 2|) with the branch each distance takes for t in
// (-1, 0) or [0, 1). At the boundaries (a distance of exactly 1 or 2) both
// polynomials give +0.0, so the choice made here matches cubicWeight's.
inline double cubicNear(double u) {
    return 1.0 - 2.0 * u * u + u * u * u;
}
inline double cubicFar(double u) {
    return 4.0 - 8.0 * u + 5.0 * u * u - u * u * u;
}

inline double weighted(double t, double x0, double x1, double x2, double x3) {
    if (t >= 0.0) {
        return cubicFar(std::fabs(1.0 + t)) * x0 + cubicNear(std::fabs(t)) * x1 +
               cubicNear(std::fabs(t - 1.0)) * x2 + cubicFar(std::fabs(t - 2.0)) * x3;
    }
    // |t - 2| >= 2: cubicWeight gives 0.0 for the last tap.
    return cubicNear(std::fabs(1.0 + t)) * x0 + cubicNear(std::fabs(t)) * x1 +
           cubicFar(std::fabs(t - 1.0)) * x2 + 0.0 * x3;
}

// The same four weights, stored.
inline void weightsFor(double t, double* w) {
    if (t >= 0.0) {
        w[0] = cubicFar(std::fabs(1.0 + t));
        w[1] = cubicNear(std::fabs(t));
        w[2] = cubicNear(std::fabs(t - 1.0));
        w[3] = cubicFar(std::fabs(t - 2.0));
    } else {
        w[0] = cubicNear(std::fabs(1.0 + t));
        w[1] = cubicNear(std::fabs(t));
        w[2] = cubicFar(std::fabs(t - 1.0));
        w[3] = 0.0;
    }
}

} // namespace

void PitchShiftChannel::spawnGrain(int32_t start) {
    for (uint32_t k = 0; k < grainCount; ++k) {
        Grain& g = grains[k];
        if (g.active == 0) {
            g.active = 1;
            g.age = 0;
            g.start = start;
            g.length = static_cast<int32_t>(grainLength);
            g.window = window;
            return;
        }
    }
}

void PitchShiftChannel::fillLine(const float* in, uint32_t frames) {
    // x[-m] = ring[(writeIndex + m - 1) mod span] lands at line_[span - m]:
    // walking m down from span, the ring index walks down by one and wraps.
    uint32_t index =
        span == 0 ? 0
                  : static_cast<uint32_t>((static_cast<uint64_t>(writeIndex) + span - 1) % span);
    for (uint32_t j = 0; j < span; ++j) {
        line_[j] = static_cast<double>(ring[index]);
        index = index == 0 ? span - 1 : index - 1;
    }
    double* block = line_ + span;
    for (uint32_t n = 0; n < frames; ++n) {
        block[n] = static_cast<double>(in[n]);
    }
}

void PitchShiftChannel::ageGrains(uint32_t len) {
    for (uint32_t k = 0; k < grainCount; ++k) {
        Grain& g = grains[k];
        if (g.active == 0) {
            continue;
        }
        // One step at least, then until the age reaches the length.
        const int64_t left = static_cast<int64_t>(g.length) - g.age;
        const uint32_t count = left <= 1 ? 1u : (left < len ? static_cast<uint32_t>(left) : len);
        g.age += static_cast<int32_t>(count);
        if (g.age >= g.length) {
            g.active = 0;
        }
    }
}

void PitchShiftChannel::runPiece(const float* in, float* out, uint32_t frames, uint32_t available,
                                 uint32_t n0, uint32_t len) {
    double acc[kPieceFrames];
    double wsum[kPieceFrames];
    for (uint32_t j = 0; j < len; ++j) {
        acc[j] = 0.0;
        wsum[j] = 0.0;
    }
    const double* table = weights_;
    const uint32_t tableAges = weightAges_;
    // Tap k of age a at table[k * cap + a], taps for p < 0 after the four
    // rows for p >= 0: consecutive ages sit side by side.
    const size_t cap = weightCapacity_;
    const double* positive = table;
    const double* negative = table == nullptr ? nullptr : table + 4 * cap;
    const double r = static_cast<double>(ratio);
    const double* line = nullptr; // line[k] = x[k]
    // Without a line large enough every read takes the general path.
    const bool linear = line_ != nullptr && static_cast<uint64_t>(span) + frames <= lineCapacity_;
    const int64_t lineSpan = linear ? static_cast<int64_t>(span) : INT64_MIN / 2;
    if (linear) {
        line = line_ + span;
    }
    const int32_t lastIndex = static_cast<int32_t>(frames);
    for (uint32_t k = 0; k < grainCount; ++k) {
        Grain& g = grains[k];
        if (g.active == 0) {
            continue;
        }
        // A record sounds at least once and then until its age reaches the
        // length.
        const int64_t left = static_cast<int64_t>(g.length) - g.age;
        const uint32_t count = left <= 1 ? 1u : (left < len ? static_cast<uint32_t>(left) : len);
        const double start = static_cast<double>(g.start);
        const float* window = g.window;
        int32_t age = g.age;
        uint32_t j = 0;
        // Positions grow with age, so when the first and the last position
        // of the run are inside the line and every age is in the table, all
        // of them are: that run needs no checks at all.
        const double pFirst = static_cast<double>(age) * r + start;
        const double pLast = static_cast<double>(age + static_cast<int32_t>(count) - 1) * r + start;
        const int32_t ipFirst = truncToInt32(pFirst);
        const int32_t ipLast = truncToInt32(pLast);
        if (r > 0.0 && static_cast<int64_t>(ipFirst) + lineSpan >= 3 && ipFirst != INT32_MIN &&
            ipLast < lastIndex && ipLast != INT32_MIN &&
            static_cast<int64_t>(age) + count <= static_cast<int64_t>(tableAges) && age >= 0) {
            // One sample of the run: the per-tap arithmetic with tabled weights.
            auto step = [&](uint32_t jj, int32_t a) {
                double p = static_cast<double>(a) * r + start;
                const double* x = line + static_cast<int32_t>(p);
                const double* w = (p < 0.0 ? negative : positive) + a;
                double v = w[0] * x[-3] + w[cap] * x[-2] + w[2 * cap] * x[-1] + w[3 * cap] * x[0];
                double weight = static_cast<double>(window[a]);
                acc[jj] += v * weight;
                wsum[jj] += weight;
            };
#if defined(__SSE2__)
            // Two samples at once, one per lane: each lane does the scalar
            // operations in the scalar order, so the sums are the same.
            const __m128d rv = _mm_set1_pd(r);
            const __m128d sv = _mm_set1_pd(start);
            const __m128d two = _mm_set1_pd(2.0);
            __m128d ages = _mm_set_pd(static_cast<double>(age) + 1.0, static_cast<double>(age));
            for (; j + 1 < count; j += 2, age += 2) {
                const __m128d pv = _mm_add_pd(_mm_mul_pd(ages, rv), sv);
                ages = _mm_add_pd(ages, two);
                const int below = _mm_movemask_pd(_mm_cmplt_pd(pv, _mm_setzero_pd()));
                if (below == 1 || below == 2) {
                    // The pair straddles p = 0 and needs both weight tables.
                    step(j, age);
                    step(j + 1, age + 1);
                    continue;
                }
                const __m128i iv = _mm_cvttpd_epi32(pv);
                const double* xa = line + _mm_cvtsi128_si32(iv) - 3;
                const double* xb = line + _mm_cvtsi128_si32(_mm_shuffle_epi32(iv, 1)) - 3;
                const double* w = (below != 0 ? negative : positive) + age;
                const __m128d loA = _mm_loadu_pd(xa);
                const __m128d hiA = _mm_loadu_pd(xa + 2);
                const __m128d loB = _mm_loadu_pd(xb);
                const __m128d hiB = _mm_loadu_pd(xb + 2);
                __m128d v = _mm_mul_pd(_mm_loadu_pd(w), _mm_unpacklo_pd(loA, loB));
                v = _mm_add_pd(v, _mm_mul_pd(_mm_loadu_pd(w + cap), _mm_unpackhi_pd(loA, loB)));
                v = _mm_add_pd(v, _mm_mul_pd(_mm_loadu_pd(w + 2 * cap), _mm_unpacklo_pd(hiA, hiB)));
                v = _mm_add_pd(v, _mm_mul_pd(_mm_loadu_pd(w + 3 * cap), _mm_unpackhi_pd(hiA, hiB)));
                const __m128d weight = _mm_cvtps_pd(_mm_castsi128_ps(
                    _mm_loadl_epi64(reinterpret_cast<const __m128i*>(window + age))));
                _mm_storeu_pd(acc + j, _mm_add_pd(_mm_loadu_pd(acc + j), _mm_mul_pd(v, weight)));
                _mm_storeu_pd(wsum + j, _mm_add_pd(_mm_loadu_pd(wsum + j), weight));
            }
#endif
            for (; j < count; ++j, ++age) {
                step(j, age);
            }
        }
        for (; j < count; ++j, ++age) {
            double p = static_cast<double>(age) * r + start;
            int32_t ip = truncToInt32(p);
            double v;
            if (static_cast<int64_t>(ip) + lineSpan >= 3 && ip < lastIndex) {
                const double* x = line + ip;
                if (static_cast<uint32_t>(age) < tableAges) {
                    const double* w = (p < 0.0 ? negative : positive) + age;
                    v = w[0] * x[-3] + w[cap] * x[-2] + w[2 * cap] * x[-1] + w[3 * cap] * x[0];
                } else {
                    v = weighted(p - static_cast<double>(ip), x[-3], x[-2], x[-1], x[0]);
                }
            } else {
                // Taps beyond the history or past the chunk end (and
                // positions outside the int32 range) take the general path.
                double t = p - static_cast<double>(ip);
                auto x = [&](int64_t k) {
                    return static_cast<double>(
                        granular::sampleAt(k, in, available, ring, writeIndex, span));
                };
                const int64_t i = ip;
                v = cubicWeight(std::fabs(1.0 + t)) * x(i - 3) +
                    cubicWeight(std::fabs(t)) * x(i - 2) +
                    cubicWeight(std::fabs(t - 1.0)) * x(i - 1) +
                    cubicWeight(std::fabs(t - 2.0)) * x(i);
            }
            double weight = static_cast<double>(window[age]);
            acc[j] += v * weight;
            wsum[j] += weight;
        }
        g.age = age;
        if (g.age >= g.length) {
            g.active = 0;
        }
    }
    const double level = static_cast<double>(outLevel);
    for (uint32_t j = 0; j < len; ++j) {
        out[n0 + j] = wsum[j] > 0.0 ? static_cast<float>(level / wsum[j] * acc[j]) : 0.0f;
    }
}

void PitchShiftChannel::prepareWeights() {
    if (weights_ == nullptr || grainLength > weightCapacity_) {
        weightAges_ = 0;
        return;
    }
    // The table needs exact positions: a ratio within the clamped range keeps
    // age x ratio on a grid of 2^-24 well inside the double mantissa.
    if (!(ratio >= 0.5f && ratio <= 2.0f)) {
        weightAges_ = 0;
        return;
    }
    if (weightAges_ == grainLength && weightRatio_ == ratio) {
        return;
    }
    const double r = static_cast<double>(ratio);
    for (uint32_t age = 0; age < grainLength; ++age) {
        // p = age x ratio + start with a whole start: for p >= 0 its fraction
        // is that of age x ratio; for p < 0 it is that minus one, or +0.0.
        const double a = static_cast<double>(age) * r;
        const double up = a - std::trunc(a);
        const double down = up == 0.0 ? up : up - 1.0;
        const size_t cap = weightCapacity_;
        double w[4];
        weightsFor(up, w);
        for (size_t k = 0; k < 4; ++k) {
            weights_[k * cap + age] = w[k];
        }
        weightsFor(down, w);
        for (size_t k = 0; k < 4; ++k) {
            weights_[(4 + k) * cap + age] = w[k];
        }
    }
    weightAges_ = grainLength;
    weightRatio_ = ratio;
}

void PitchShiftChannel::processBlock(const float* in, float* out, uint32_t frames,
                                     uint32_t available) {
    const bool passThrough = bypass != 0;
    if (!passThrough) {
        if (line_ != nullptr && static_cast<uint64_t>(span) + frames <= lineCapacity_) {
            fillLine(in, frames);
        }
        prepareWeights();
    }
    // Grains start only where the spawn clock is 0, so between two such
    // samples the set of sounding records can only shrink. Each piece
    // between them is run grain by grain over its samples, summing into
    // per-sample accumulators: every sample still receives the grains'
    // terms in record order, so the sums are the per-sample ones, while
    // the samples of one grain no longer wait on each other.
    uint32_t n0 = 0;
    while (n0 < frames) {
        if (spawnPhase == 0) {
            spawnGrain(offset + static_cast<int32_t>(n0));
        }
        uint32_t len = frames - n0;
        const uint32_t untilSpawn = spacing - spawnPhase;
        if (untilSpawn < len) {
            len = untilSpawn;
        }
        if (len > kPieceFrames) {
            len = kPieceFrames;
        }
        spawnPhase += len;
        if (spawnPhase >= spacing) {
            spawnPhase = 0;
        }
        if (passThrough) {
            // The grain clock keeps running; the input passes unchanged.
            ageGrains(len);
            std::memmove(out + n0, in + n0, static_cast<size_t>(len) * sizeof(float));
        } else {
            runPiece(in, out, frames, available, n0, len);
        }
        n0 += len;
    }

    // End of block: positions relative to the next block, pending settings
    // take over, then the history is kept with the new span.
    for (uint32_t k = 0; k < grainCount; ++k) {
        if (grains[k].active != 0) {
            grains[k].start -= static_cast<int32_t>(frames);
        }
    }
    span = spanPending;
    ratio = ratioPending;
    offset = offsetPending;
    bypass = bypassPending;
    granular::storeHistory(ring, writeIndex, span, in, frames);
}

} // namespace dsp

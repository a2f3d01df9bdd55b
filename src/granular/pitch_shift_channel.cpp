#include "pitch_shift_channel.h"

#include "core/cubic_weight.h"
#include "core/numeric.h"

#include <cmath>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace dsp {

namespace {

// Grains up to this length (about 0.48 s at 44100 Hz: 2 MiB of weights and
// 0.5 MiB of linear history per channel) get the weight table and the linear
// copy of the history; longer ones read the ring and evaluate every weight.
constexpr uint32_t kMaxFastPathLength = 1u << 15;

// What reading the grains of one piece takes, gathered once per piece.
struct GrainReader {
    const double* line; // line[k] = x[k]; null without a line
    // History samples before line[0]; far below any position without a line,
    // so that every read takes the general path.
    int64_t lineSpan;
    int32_t lastIndex; // the chunk's length: reads from there on leave the line
    // Tap rows for positions >= 0 and < 0 (null without a table): tap k of
    // age a at row[k * stride + a], consecutive ages side by side.
    const double* positive;
    const double* negative;
    size_t stride;
    uint32_t tableAges; // ages the table holds for this ratio
    double ratio;
    const float* in;
    uint32_t available;
    granular::HistoryView history;
};

// The interpolated read at p with the tabled weights of `age`; x = line + ip.
inline double tabledRead(const GrainReader& r, const double* x, double p, int32_t age) {
    const double* w = (p < 0.0 ? r.negative : r.positive) + age;
    const size_t s = r.stride;
    return w[0] * x[-3] + w[s] * x[-2] + w[2 * s] * x[-1] + w[3 * s] * x[0];
}

// The interpolated read at p with every check: the line with tabled or
// evaluated weights where the taps lie inside it, else the ring and the
// caller's block (also for positions outside the int32 range).
inline double checkedRead(const GrainReader& r, double p, int32_t age) {
    const int32_t ip = truncToInt32(p);
    if (static_cast<int64_t>(ip) + r.lineSpan >= 3 && ip < r.lastIndex) {
        const double* x = r.line + ip;
        if (static_cast<uint32_t>(age) < r.tableAges) {
            return tabledRead(r, x, p, age);
        }
        const CubicTaps w = cubicTaps(p - static_cast<double>(ip));
        return w.w[0] * x[-3] + w.w[1] * x[-2] + w.w[2] * x[-1] + w.w[3] * x[0];
    }
    const double t = p - static_cast<double>(ip);
    auto x = [&](int64_t k) { return static_cast<double>(r.history.at(k, r.in, r.available)); };
    const int64_t i = ip;
    return cubicWeight(std::fabs(1.0 + t)) * x(i - 3) + cubicWeight(std::fabs(t)) * x(i - 2) +
           cubicWeight(std::fabs(t - 1.0)) * x(i - 1) + cubicWeight(std::fabs(t - 2.0)) * x(i);
}

inline void addTerm(double v, double weight, double* acc, double* wsum) {
    *acc += v * weight;
    *wsum += weight;
}

// Positions grow with age, so when the first and the last position of a run
// of `count` samples are inside the line and every age is in the table, all
// of them are: that run needs no checks at all.
inline bool runIsTabled(const GrainReader& r, double start, int32_t age, uint32_t count) {
    const double pFirst = static_cast<double>(age) * r.ratio + start;
    const double pLast =
        static_cast<double>(age + static_cast<int32_t>(count) - 1) * r.ratio + start;
    const int32_t ipFirst = truncToInt32(pFirst);
    const int32_t ipLast = truncToInt32(pLast);
    return r.ratio > 0.0 && static_cast<int64_t>(ipFirst) + r.lineSpan >= 3 &&
           ipFirst != INT32_MIN && ipLast < r.lastIndex && ipLast != INT32_MIN &&
           static_cast<int64_t>(age) + count <= static_cast<int64_t>(r.tableAges) && age >= 0;
}

// One sample of a run that needs no checks.
inline void tabledStep(const GrainReader& r, const float* window, double start, int32_t age,
                       double* acc, double* wsum) {
    const double p = static_cast<double>(age) * r.ratio + start;
    addTerm(tabledRead(r, r.line + static_cast<int32_t>(p), p, age),
            static_cast<double>(window[age]), acc, wsum);
}

#if defined(__SSE2__)
// The samples of a run that needs no checks two at a time, one per lane:
// each lane does the scalar operations in the scalar order, so the sums are
// the same. Returns the samples done (an even count; the caller does the
// last one of an odd run).
inline uint32_t tabledPairs(const GrainReader& r, const float* window, double start, int32_t age,
                            uint32_t count, double* acc, double* wsum) {
    const double* line = r.line;
    const size_t cap = r.stride;
    const __m128d rv = _mm_set1_pd(r.ratio);
    const __m128d sv = _mm_set1_pd(start);
    const __m128d two = _mm_set1_pd(2.0);
    __m128d ages = _mm_set_pd(static_cast<double>(age) + 1.0, static_cast<double>(age));
    uint32_t j = 0;
    for (; j + 1 < count; j += 2, age += 2) {
        const __m128d pv = _mm_add_pd(_mm_mul_pd(ages, rv), sv);
        ages = _mm_add_pd(ages, two);
        const int below = _mm_movemask_pd(_mm_cmplt_pd(pv, _mm_setzero_pd()));
        if (below == 1 || below == 2) {
            // The pair straddles p = 0 and needs both weight tables.
            tabledStep(r, window, start, age, acc + j, wsum + j);
            tabledStep(r, window, start, age + 1, acc + j + 1, wsum + j + 1);
            continue;
        }
        const __m128i iv = _mm_cvttpd_epi32(pv);
        const double* xa = line + _mm_cvtsi128_si32(iv) - 3;
        const double* xb = line + _mm_cvtsi128_si32(_mm_shuffle_epi32(iv, 1)) - 3;
        const double* w = (below != 0 ? r.negative : r.positive) + age;
        const __m128d loA = _mm_loadu_pd(xa);
        const __m128d hiA = _mm_loadu_pd(xa + 2);
        const __m128d loB = _mm_loadu_pd(xb);
        const __m128d hiB = _mm_loadu_pd(xb + 2);
        __m128d v = _mm_mul_pd(_mm_loadu_pd(w), _mm_unpacklo_pd(loA, loB));
        v = _mm_add_pd(v, _mm_mul_pd(_mm_loadu_pd(w + cap), _mm_unpackhi_pd(loA, loB)));
        v = _mm_add_pd(v, _mm_mul_pd(_mm_loadu_pd(w + 2 * cap), _mm_unpacklo_pd(hiA, hiB)));
        v = _mm_add_pd(v, _mm_mul_pd(_mm_loadu_pd(w + 3 * cap), _mm_unpackhi_pd(hiA, hiB)));
        const __m128d weight = _mm_cvtps_pd(
            _mm_castsi128_ps(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(window + age))));
        _mm_storeu_pd(acc + j, _mm_add_pd(_mm_loadu_pd(acc + j), _mm_mul_pd(v, weight)));
        _mm_storeu_pd(wsum + j, _mm_add_pd(_mm_loadu_pd(wsum + j), weight));
    }
    return j;
}
#endif

// Adds the terms of one sounding grain to the piece's sums and ages it.
inline void playGrain(const GrainReader& r, Grain& g, uint32_t len, double* acc, double* wsum) {
    const uint32_t count = granular::stepsWithin(g, len);
    const double start = static_cast<double>(g.start);
    const float* window = g.window;
    const int32_t age = g.age;
    if (runIsTabled(r, start, age, count)) {
        uint32_t j = 0;
#if defined(__SSE2__)
        j = tabledPairs(r, window, start, age, count, acc, wsum);
#endif
        for (; j < count; ++j) {
            tabledStep(r, window, start, age + static_cast<int32_t>(j), acc + j, wsum + j);
        }
    } else {
        for (uint32_t j = 0; j < count; ++j) {
            const int32_t a = age + static_cast<int32_t>(j);
            const double p = static_cast<double>(a) * r.ratio + start;
            addTerm(checkedRead(r, p, a), static_cast<double>(window[a]), acc + j, wsum + j);
        }
    }
    granular::setAge(g, age + static_cast<int32_t>(count));
}

} // namespace

bool PitchShiftChannel::setup(uint32_t sampleRate, float cents, float levelDb, float grainSeconds,
                              float spacingSeconds) {
    granular::GrainGeometry geometry;
    if (!granular::grainGeometryFor(sampleRate, grainSeconds, spacingSeconds, &geometry)) {
        return false;
    }
    const uint32_t length = geometry.length;
    const uint32_t ringSize = 2 * length + 3;
    // The span never exceeds the ring size, and a chunk holds at most
    // kMaxChunkFrames samples.
    const uint32_t lineSize = ringSize + granular::kMaxChunkFrames;
    const bool fastPaths = length <= kMaxFastPathLength;

    granular::GrainEngine::Arrays arrays;
    OwnedArray<double> newLine, newWeights;
    if (!engine_.prepare(geometry, ringSize, &arrays) ||
        (fastPaths && !prepareGrowth(line_, lineSize, newLine)) ||
        (fastPaths && !prepareGrowth(weights_, static_cast<size_t>(length) * 8, newWeights))) {
        return false;
    }
    engine_.install(geometry, arrays);
    installGrowth(line_, newLine);
    installGrowth(weights_, newWeights);
    weightAges_ = 0; // refilled for the new length and ratio

    setPitch(cents); // uses the new grain length
    engine_.setOutLevel(levelDb);
    // Reach back: the grain length for pitch down (each record reads from
    // the sample it began on), the pending span otherwise.
    const int64_t back = pitchCents_ < 0.0f ? static_cast<int64_t>(length)
                                            : static_cast<int64_t>(engine_.pending().span);
    engine_.start(ringSize, geometry.spacing, back);
    return true;
}

void PitchShiftChannel::setPitch(float cents) {
    granular::GrainSettings next;
    // Only exactly 0 bypasses; a pitch that is not a number counts as 0 here
    // and is stored as +1200 below.
    next.bypass = cents == 0.0f || std::isnan(cents);
    float clamped = cents;
    if (clamped < -1200.0f) {
        clamped = -1200.0f;
    } else if (!(clamped <= 1200.0f)) {
        clamped = 1200.0f;
    }
    pitchCents_ = clamped;
    const double r = std::pow(2.0, static_cast<double>(clamped) * (1.0 / 1200.0));
    next.ratio = static_cast<float>(r);
    const double length = static_cast<double>(engine_.grainLength());
    next.offset = clamped >= 0.0f ? truncToInt32(length - r * length) : 0;
    next.span = truncToUint32(length * r) + 3;
    engine_.setPending(next);
}

uint32_t PitchShiftChannel::process(const float* in, float* out, uint32_t frames) {
    if (!engine_.isReady()) {
        return frames;
    }
    for (uint32_t left = frames; left > 0;) {
        const uint32_t block = left < granular::kMaxChunkFrames ? left : granular::kMaxChunkFrames;
        processBlock(in, out, block, left);
        in += block;
        out += block;
        left -= block;
    }
    return frames;
}

bool PitchShiftChannel::hasLineFor(uint32_t frames) const {
    return line_ && static_cast<uint64_t>(engine_.current().span) + frames <= line_.size();
}

void PitchShiftChannel::fillLine(const float* in, uint32_t frames) {
    // x[-m] = ring[(writeIndex + m - 1) mod span] lands at line_[span - m]:
    // walking m down from span, the ring index walks down by one and wraps.
    const granular::HistoryView history = engine_.history();
    const uint32_t span = history.span;
    uint32_t index =
        span == 0
            ? 0
            : static_cast<uint32_t>((static_cast<uint64_t>(history.writeIndex) + span - 1) % span);
    for (uint32_t j = 0; j < span; ++j) {
        line_[j] = static_cast<double>(history.ring[index]);
        index = index == 0 ? span - 1 : index - 1;
    }
    double* block = line_.data() + span;
    for (uint32_t n = 0; n < frames; ++n) {
        block[n] = static_cast<double>(in[n]);
    }
}

void PitchShiftChannel::prepareWeights() {
    const uint32_t length = engine_.grainLength();
    const float ratio = engine_.current().ratio;
    // The table needs exact positions: a ratio within the clamped range keeps
    // age x ratio on a grid of 2^-24 well inside the double mantissa.
    if (!weights_ || length > weightStride() || !(ratio >= 0.5f && ratio <= 2.0f)) {
        weightAges_ = 0;
        return;
    }
    if (weightAges_ == length && weightRatio_ == ratio) {
        return;
    }
    const double r = static_cast<double>(ratio);
    const size_t stride = weightStride();
    for (uint32_t age = 0; age < length; ++age) {
        // p = age x ratio + start with a whole start: for p >= 0 its fraction
        // is that of age x ratio; for p < 0 it is that minus one, or +0.0.
        const double a = static_cast<double>(age) * r;
        const double up = a - std::trunc(a);
        const double down = up == 0.0 ? up : up - 1.0;
        const CubicTaps upTaps = cubicTaps(up);
        const CubicTaps downTaps = cubicTaps(down);
        for (size_t k = 0; k < 4; ++k) {
            weights_[k * stride + age] = upTaps.w[k];
            weights_[(4 + k) * stride + age] = downTaps.w[k];
        }
    }
    weightAges_ = length;
    weightRatio_ = ratio;
}

void PitchShiftChannel::runPiece(const float* in, float* out, uint32_t frames, uint32_t available,
                                 uint32_t n0, uint32_t len) {
    const bool linear = hasLineFor(frames);
    const bool tabled = static_cast<bool>(weights_);
    const granular::HistoryView history = engine_.history();
    const GrainReader reader{linear ? line_.data() + history.span : nullptr,
                             linear ? static_cast<int64_t>(history.span) : INT64_MIN / 2,
                             static_cast<int32_t>(frames),
                             tabled ? weights_.data() : nullptr,
                             tabled ? weights_.data() + 4 * weightStride() : nullptr,
                             weightStride(),
                             weightAges_,
                             static_cast<double>(engine_.current().ratio),
                             in,
                             available,
                             history};
    double acc[kPieceFrames];
    double wsum[kPieceFrames];
    for (uint32_t j = 0; j < len; ++j) {
        acc[j] = 0.0;
        wsum[j] = 0.0;
    }
    Grain* grains = engine_.grains();
    const uint32_t count = engine_.grainCount();
    for (uint32_t k = 0; k < count; ++k) {
        if (grains[k].active != 0) {
            playGrain(reader, grains[k], len, acc, wsum);
        }
    }
    const double level = static_cast<double>(engine_.outLevel());
    for (uint32_t j = 0; j < len; ++j) {
        out[n0 + j] = wsum[j] > 0.0 ? static_cast<float>(level / wsum[j] * acc[j]) : 0.0f;
    }
}

void PitchShiftChannel::processBlock(const float* in, float* out, uint32_t frames,
                                     uint32_t available) {
    const granular::GrainSettings now = engine_.current();
    if (!now.bypass) {
        if (hasLineFor(frames)) {
            fillLine(in, frames);
        }
        prepareWeights();
    }
    // Between two grain starts the set of sounding records can only shrink.
    // Each piece between them is run grain by grain over its samples,
    // summing into per-sample accumulators: every sample still receives the
    // grains' terms in record order, so the sums are the per-sample ones,
    // while the samples of one grain no longer wait on each other.
    engine_.runPieces(
        frames, kPieceFrames, [&](uint32_t n0) { return now.offset + static_cast<int32_t>(n0); },
        [&](uint32_t n0, uint32_t len) {
            if (now.bypass) {
                engine_.passPiece(in, out, n0, len);
            } else {
                runPiece(in, out, frames, available, n0, len);
            }
        });
    engine_.endBlock(in, frames);
}

} // namespace dsp

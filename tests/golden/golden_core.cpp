// Golden runs of the processing core: the conversions on every path, the
// whole-buffer copies, the lookup tables, the IIR designers and the pool.
#include "golden/golden_runs.h"

#include "core/fastmem_pool.h"
#include "core/lookup_tables.h"
#include "core/sample_convert.h"
#include "dsp.h"
#include "filters/iir_designer.h"

#include <cstring>
#include <memory>

namespace {

// Pool-backed float buffer (16-byte aligned like the work buffers), with an
// optional start offset in floats.
class PoolFloats {
public:
    explicit PoolFloats(size_t count, size_t offset = 0)
        : block_(
              static_cast<float*>(fastmemAlloc(static_cast<uint32_t>((count + offset + 4) * 4)))),
          data_(block_ + offset), count_(count) {
        std::memset(block_, 0, (count + offset + 4) * 4);
    }
    ~PoolFloats() { fastmemFree(block_); }
    PoolFloats(const PoolFloats&) = delete;
    PoolFloats& operator=(const PoolFloats&) = delete;
    float* data() { return data_; }
    size_t size() const { return count_; }

private:
    float* block_;
    float* data_;
    size_t count_;
};

// Frame counts that exercise the kernels' group sizes and remainders.
const uint32_t kFrameCounts[] = {1, 7, 8, 13, 16, 1000, 1027};

void toFloatRuns(golden::Sink& out, uint32_t channels, bool mixDown) {
    for (uint32_t frames : kFrameCounts) {
        std::vector<int16_t> in = golden::testSignal(frames, channels, frames);
        PoolFloats left(frames), right(frames);
        uint32_t bytes = frames * channels * 2;
        // An odd trailing byte is ignored.
        uint32_t done =
            dsp::convertToFloat(dsp::currentRules().rule, in.data(), bytes + 1, left.data(),
                                mixDown ? nullptr : right.data(), channels);
        out.value(done);
        out.samples(left.data(), frames);
        if (channels == 2 && !mixDown) {
            out.samples(right.data(), frames);
        }
    }
}

void toInt16Runs(golden::Sink& out, uint32_t channels, bool duplicate, size_t offset) {
    for (uint32_t frames : kFrameCounts) {
        PoolFloats left(frames, offset), right(frames, offset);
        std::vector<float> l = golden::testFloats(frames, frames);
        std::vector<float> r = golden::testFloats(frames, frames + 100);
        std::memcpy(left.data(), l.data(), frames * 4);
        std::memcpy(right.data(), r.data(), frames * 4);
        std::vector<int16_t> dst(frames * 2 + 4, 0x5a5a);
        uint32_t bytes =
            dsp::convertToInt16(dsp::currentRules().rule, left.data(),
                                duplicate ? nullptr : right.data(), frames, dst.data(), channels);
        out.value(bytes);
        out.samples(dst);
    }
}

} // namespace

GOLDEN_RUN(convertToFloatMono) {
    toFloatRuns(out, 1, false);
}

GOLDEN_RUN(convertToFloatStereo) {
    toFloatRuns(out, 2, false);
}

GOLDEN_RUN(convertToFloatMixDown) {
    toFloatRuns(out, 2, true);
}

GOLDEN_RUN(convertToInt16Mono) {
    toInt16Runs(out, 1, false, 0);
}

GOLDEN_RUN(convertToInt16Stereo) {
    toInt16Runs(out, 2, false, 0);
}

GOLDEN_RUN(convertToInt16Duplicate) {
    toInt16Runs(out, 2, true, 0);
}

GOLDEN_RUN(convertToInt16Misaligned) {
    toInt16Runs(out, 1, false, 1);
    toInt16Runs(out, 2, false, 3);
}

GOLDEN_RUN(convertRoundTrip) {
    // Every 16-bit value once, mono, through both conversions.
    std::vector<int16_t> in(65536);
    for (uint32_t i = 0; i < in.size(); ++i) {
        in[i] = static_cast<int16_t>(static_cast<int32_t>(i) - 32768);
    }
    PoolFloats buffer(in.size());
    std::vector<int16_t> back(in.size());
    dsp::convertToFloat(dsp::currentRules().rule, in.data(), static_cast<uint32_t>(in.size() * 2),
                        buffer.data(), nullptr, 1);
    dsp::convertToInt16(dsp::currentRules().rule, buffer.data(), nullptr,
                        static_cast<uint32_t>(in.size()), back.data(), 1);
    out.samples(back);
}

GOLDEN_RUN(passThroughAndCopy) {
    std::vector<int16_t> src = golden::testSignal(600, 1, 3);
    const uint32_t sizes[] = {0, 1, 15, 16, 17, 33, 1000, 1199};
    for (uint32_t bytes : sizes) {
        std::vector<unsigned char> a(1200, 0xee), b(1200, 0xee);
        dsp::passThroughCopy(src.data(), a.data(), bytes);
        dsp::copyBuffer(src.data(), b.data(), bytes);
        out.samples(a);
        out.samples(b);
    }
}

GOLDEN_RUN(lookupTables) {
    const dsp::DecibelTable& db = dsp::decibelTable();
    for (int i = -700; i <= 700; ++i) {
        out.value(db.lookup(i * 0.0913));
    }
    const dsp::SineTable& sine = dsp::sineTable();
    for (int i = -3000; i <= 3000; ++i) {
        out.value(sine.lookup(i * 0.00731));
    }
}

namespace {

void designerRuns(golden::Sink& out, bool chebyshev) {
    const float rates[] = {8000.0f, 22050.0f, 44100.0f, 48000.0f, 96000.0f};
    const float cutoffFractions[] = {0.01f, 0.1f, 0.23f, 0.45f};
    std::vector<float> impulse(256, 0.0f);
    impulse[0] = 1.0f;
    std::vector<float> noise = golden::testFloats(512, 11);
    for (size_t i = 0; i < noise.size(); ++i) {
        if (noise[i] != noise[i]) {
            noise[i] = 0.25f; // no NaN through a recursive filter
        }
    }
    for (int32_t order = 1; order <= 10; ++order) {
        for (uint32_t kind = 0; kind <= 1; ++kind) {
            for (float rate : rates) {
                for (float fraction : cutoffFractions) {
                    std::unique_ptr<dsp::IirDesigner> filter;
                    if (chebyshev) {
                        filter.reset(new dsp::ChebyshevDesigner());
                    } else {
                        filter.reset(new dsp::ButterworthDesigner());
                    }
                    if (!filter->setOrder(order, kind)) {
                        out.value(-1);
                        continue;
                    }
                    filter->design(rate, rate * fraction);
                    for (int32_t i = 0; i < filter->sectionCount(); ++i) {
                        const dsp::BiquadSection& s = filter->section(i);
                        out.value(static_cast<float>(s.a1));
                        out.value(static_cast<float>(s.a2));
                        out.value(static_cast<float>(s.b0));
                        out.value(static_cast<float>(s.b1));
                        out.value(static_cast<float>(s.b2));
                    }
                    std::vector<float> response(impulse.size());
                    filter->process(impulse.data(), response.data(),
                                    static_cast<uint32_t>(impulse.size()));
                    out.samples(response);
                    std::vector<float> filtered(noise.size());
                    filter->process(noise.data(), filtered.data(),
                                    static_cast<uint32_t>(noise.size()));
                    out.samples(filtered);
                }
            }
        }
    }
}

} // namespace

// Coefficients are compared at the float precision of the audio they filter:
// the C library's sinh and cosh may differ in the last bit of a double from
// one platform to the next, while the filtered outputs stay the same.
GOLDEN_RUN(iirButterworth) {
    designerRuns(out, false);
}

GOLDEN_RUN(iirChebyshev) {
    designerRuns(out, true);
}

GOLDEN_RUN(iirChebyshevRipple) {
    const float ripples[] = {0.1f, 0.5f, 1.0f, 3.0f};
    for (float ripple : ripples) {
        for (int32_t order = 1; order <= 8; ++order) {
            dsp::ChebyshevDesigner filter;
            if (!filter.setOrder(order, order % 2)) {
                out.value(-1);
                continue;
            }
            filter.designChebyshev(44100.0f, 3000.0f, ripple);
            for (int32_t i = 0; i < filter.sectionCount(); ++i) {
                const dsp::BiquadSection& s = filter.section(i);
                out.value(static_cast<float>(s.a1));
                out.value(static_cast<float>(s.a2));
                out.value(static_cast<float>(s.b0));
                out.value(static_cast<float>(s.b1));
                out.value(static_cast<float>(s.b2));
            }
        }
    }
}

GOLDEN_RUN(fastmemPool) {
    // Sizes and results only: addresses differ from build to build.
    const uint32_t start = fastmemGetAllocatedSize();
    const uint32_t sizes[] = {1, 16, 17, 1000, 4096, 65536, 3};
    void* blocks[sizeof sizes / sizeof sizes[0]];
    for (size_t i = 0; i < sizeof sizes / sizeof sizes[0]; ++i) {
        blocks[i] = fastmemAlloc(sizes[i]);
        out.value(static_cast<uint8_t>(blocks[i] != nullptr));
        out.value(static_cast<uint8_t>(reinterpret_cast<uintptr_t>(blocks[i]) % 16));
        out.value(fastmemGetAllocatedSize() - start);
    }
    // Not a block: refused.
    out.value(fastmemFree(static_cast<char*>(blocks[3]) + 16));
    for (size_t i = 0; i < sizeof sizes / sizeof sizes[0]; i += 2) {
        out.value(fastmemFree(blocks[i]));
        out.value(fastmemGetAllocatedSize() - start);
    }
    out.value(fastmemFree(blocks[0])); // twice: refused
    for (size_t i = 1; i < sizeof sizes / sizeof sizes[0]; i += 2) {
        out.value(fastmemFree(blocks[i]));
    }
    out.value(fastmemGetAllocatedSize() - start);
}

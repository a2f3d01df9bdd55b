#include "sample_format.h"

#include <cmath>
#include <cstring>

namespace cli {

uint32_t bytesPerSample(SampleType type) {
    switch (type) {
    case SampleType::kUint8:
        return 1;
    case SampleType::kInt16:
        return 2;
    case SampleType::kInt24:
        return 3;
    case SampleType::kInt32:
    case SampleType::kFloat32:
        return 4;
    case SampleType::kFloat64:
        return 8;
    }
    return 0;
}

std::string sampleTypeName(SampleType type) {
    return std::to_string(bitsPerSample(type)) + (isFloat(type) ? "-bit float" : "-bit PCM");
}

double integerScale(SampleType type) {
    return std::ldexp(1.0, static_cast<int>(bitsPerSample(type)) - 1) - 1.0;
}

namespace {

int32_t loadInt(SampleType type, const uint8_t* p) {
    switch (type) {
    case SampleType::kUint8:
        return static_cast<int32_t>(p[0]) - 128;
    case SampleType::kInt16:
        return static_cast<int16_t>(static_cast<uint16_t>(p[0] | (p[1] << 8)));
    case SampleType::kInt24: {
        uint32_t u = p[0] | (p[1] << 8) | (static_cast<uint32_t>(p[2]) << 16);
        return static_cast<int32_t>(u << 8) >> 8;
    }
    default:
        return static_cast<int32_t>(p[0] | (p[1] << 8) | (p[2] << 16) |
                                    (static_cast<uint32_t>(p[3]) << 24));
    }
}

void storeInt(SampleType type, int64_t v, uint8_t* p) {
    if (type == SampleType::kUint8) {
        p[0] = static_cast<uint8_t>(v + 128);
        return;
    }
    const uint32_t u = static_cast<uint32_t>(v);
    const uint32_t width = bytesPerSample(type);
    for (uint32_t i = 0; i < width; ++i) {
        p[i] = static_cast<uint8_t>(u >> (8 * i));
    }
}

} // namespace

void decodeSamples(SampleType type, const uint8_t* src, float* dst, size_t count) {
    const size_t width = bytesPerSample(type);
    if (type == SampleType::kFloat32) {
        for (size_t i = 0; i < count; ++i) {
            uint32_t u = static_cast<uint32_t>(loadInt(SampleType::kInt32, src + 4 * i));
            std::memcpy(&dst[i], &u, 4);
        }
    } else if (type == SampleType::kFloat64) {
        for (size_t i = 0; i < count; ++i) {
            uint64_t u = 0;
            for (int b = 7; b >= 0; --b) {
                u = (u << 8) | src[8 * i + b];
            }
            double d;
            std::memcpy(&d, &u, 8);
            dst[i] = static_cast<float>(d);
        }
    } else {
        const double inverse = 1.0 / integerScale(type);
        for (size_t i = 0; i < count; ++i) {
            dst[i] =
                static_cast<float>(static_cast<double>(loadInt(type, src + width * i)) * inverse);
        }
    }
}

size_t encodeSamples(SampleType type, const float* src, uint8_t* dst, size_t count,
                     Dither* dither) {
    if (type == SampleType::kFloat32) {
        for (size_t i = 0; i < count; ++i) {
            uint32_t u;
            std::memcpy(&u, &src[i], 4);
            storeInt(SampleType::kInt32, static_cast<int32_t>(u), dst + 4 * i);
        }
        return 0;
    }
    if (type == SampleType::kFloat64) {
        for (size_t i = 0; i < count; ++i) {
            double d = src[i];
            uint64_t u;
            std::memcpy(&u, &d, 8);
            for (int b = 0; b < 8; ++b) {
                dst[8 * i + b] = static_cast<uint8_t>(u >> (8 * b));
            }
        }
        return 0;
    }
    const double scale = integerScale(type);
    const double lo = -scale - 1.0;
    const size_t width = bytesPerSample(type);
    size_t clipped = 0;
    for (size_t i = 0; i < count; ++i) {
        // NaN counts as full scale, as in the library's 16-bit rule.
        double v = std::isnan(src[i]) ? scale : static_cast<double>(src[i]) * scale;
        if (dither != nullptr) {
            v += dither->next();
        }
        v = std::nearbyint(v);
        if (v < lo || v > scale) {
            ++clipped;
            v = v < lo ? lo : scale;
        }
        storeInt(type, static_cast<int64_t>(v), dst + width * i);
    }
    return clipped;
}

int16_t floatToInt16(float x) {
    double v = x < -1.0f ? -1.0 : (!(x <= 1.0f) ? 1.0 : static_cast<double>(x));
    return static_cast<int16_t>(static_cast<int32_t>(v * 32767.0));
}

} // namespace cli

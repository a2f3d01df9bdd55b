// The decibel and sine tables built at load, read with the wrapped
// interpolated lookup.
#include "core/lookup_tables.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

TEST(DecibelTable, FieldsAsBuiltAtLoad) {
    const dsp::DecibelTable& t = dsp::decibelTable();
    EXPECT_EQ(t.size, 2048u);
    EXPECT_EQ(t.mask, 2047u);
    EXPECT_EQ(t.offset, 50.0f);
    EXPECT_EQ(t.scale, 20.48f);
    EXPECT_EQ(t.data[0], static_cast<float>(std::pow(10.0, -2.5)));
    EXPECT_EQ(t.data[1024], 1.0f);
    EXPECT_EQ(t.data[2048], static_cast<float>(std::pow(10.0, 2.5)));
}

TEST(DecibelTable, LookupAtTheStatedLevels) {
    const dsp::DecibelTable& t = dsp::decibelTable();
    EXPECT_EQ(static_cast<float>(t.lookup(0.0)), 0.99999987f);
    EXPECT_NEAR(t.lookup(-1.0), 0.89125, 1e-5);
    EXPECT_NEAR(t.lookup(-40.0), 0.0100000, 1e-7);
    EXPECT_EQ(static_cast<float>(t.lookup(-50.0)), t.data[0]);
    EXPECT_NEAR(t.lookup(-50.0), 0.0031623, 1e-7);
    // -60 dB lies outside the table and wraps to the gain of +40 dB.
    // (The interpolation runs from the other side, so the two differ slightly.)
    EXPECT_NEAR(t.lookup(-60.0), t.lookup(40.0), 0.005);
    EXPECT_NEAR(t.lookup(-60.0), 99.9977, 1e-3);
}

TEST(SineTable, FieldsAsBuiltAtLoad) {
    const dsp::SineTable& t = dsp::sineTable();
    EXPECT_EQ(t.size, 1024u);
    EXPECT_EQ(t.mask, 1023u);
    EXPECT_EQ(t.scale, 162.97466f);
    EXPECT_EQ(t.data[256], 1.0f);
    EXPECT_EQ(t.data[0], 0.0f);
    for (uint32_t k = 0; k <= 1024; ++k) {
        ASSERT_EQ(t.data[k], static_cast<float>(std::sin(k * (6.283185307179586 / 1024))));
    }
}

TEST(SineTable, LookupWrapsInBothDirections) {
    const dsp::SineTable& t = dsp::sineTable();
    EXPECT_NEAR(t.lookup(7.0), std::sin(7.0), 2e-5);
    EXPECT_NEAR(t.lookup(7.0), 0.65698, 1e-5);
    EXPECT_NEAR(t.lookup(-1.0), std::sin(-1.0), 5e-5);
    EXPECT_NEAR(t.lookup(-1.0), -0.84150, 1e-5);
    // Index 1140 wraps to 116; the same point one period on gives the same value.
    double v = 7.0 * t.scale;
    EXPECT_EQ(static_cast<int>(v), 1140);
    EXPECT_EQ(1140 & 1023, 116);
    // At -1.0 the index is -162 and the fraction is negative: the
    // interpolation runs toward the lower entry (861), not the upper.
    double w = -1.0 * t.scale;
    int i = static_cast<int>(w);
    EXPECT_EQ(i, -162);
    EXPECT_EQ(i & 1023, 862);
    double expected = t.data[862] + (w - i) * (static_cast<double>(t.data[863]) - t.data[862]);
    EXPECT_EQ(t.lookup(-1.0), expected);
    EXPECT_LT(t.lookup(-1.0), t.data[862]);
    // 2*pi lands just below the wrap.
    EXPECT_NEAR(6.283185307179586 * t.scale, 1023.99996, 1e-4);
    EXPECT_NEAR(t.lookup(6.283185307179586), 0.0, 1e-5);
}

TEST(SineTable, ABuiltTableCanBeRebuiltSmaller) {
    dsp::SineTable t;
    t.range = 6.283185307179586;
    ASSERT_TRUE(t.build(256));
    EXPECT_EQ(t.mask, 255u);
    EXPECT_NEAR(t.lookup(1.0), std::sin(1.0), 1e-3);
}

} // namespace

// The decibel and sine tables built at load, read with the wrapped
// interpolated lookup.
#include "core/lookup_tables.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

TEST(DecibelTable, EntriesAndLookupAtTheStatedLevels) {
    const dsp::DecibelTable& t = dsp::decibelTable();
    EXPECT_EQ(t.scale, 20.48f);
    for (uint32_t k = 0; k <= 2048; k += 64) {
        ASSERT_EQ(t.data[k],
                  static_cast<float>(std::pow(10.0, (k * (100.0 / 2048) - 50.0) * 0.05)));
    }
    EXPECT_EQ(static_cast<float>(t.lookup(0.0)), 0.99999987f);
    EXPECT_NEAR(t.lookup(-1.0), 0.89125, 1e-5);
    EXPECT_EQ(static_cast<float>(t.lookup(-50.0)), t.data[0]);
    EXPECT_NEAR(t.lookup(-50.0), 0.0031623, 1e-7);
    // -60 dB lies outside the table and wraps to the gain of +40 dB.
    EXPECT_NEAR(t.lookup(-60.0), 99.9977, 1e-3);
}

TEST(SineTable, EntriesAndLookupWrappingInBothDirections) {
    const dsp::SineTable& t = dsp::sineTable();
    EXPECT_EQ(t.scale, 162.97466f);
    EXPECT_EQ(t.mask, 1023u);
    for (uint32_t k = 0; k <= 1024; ++k) {
        ASSERT_EQ(t.data[k], static_cast<float>(std::sin(k * (6.283185307179586 / 1024))));
    }
    EXPECT_NEAR(t.lookup(7.0), 0.65698, 1e-5); // index 1140 wraps to 116
    // At -1.0 the index is -162 (entry 862) and the negative fraction
    // interpolates toward the lower entry.
    const double w = -1.0 * t.scale, fraction = w + 162;
    EXPECT_EQ(t.lookup(-1.0),
              t.data[862] + fraction * (static_cast<double>(t.data[863]) - t.data[862]));
    EXPECT_NEAR(t.lookup(-1.0), -0.84150, 1e-5);
    EXPECT_NEAR(t.lookup(6.283185307179586), 0.0, 1e-5); // just below the wrap
}

TEST(SineTable, ABuiltTableCanBeRebuiltSmaller) {
    dsp::SineTable t;
    t.range = 6.283185307179586;
    ASSERT_TRUE(t.build(1024));
    ASSERT_TRUE(t.build(256));
    EXPECT_EQ(t.mask, 255u);
    EXPECT_NEAR(t.lookup(1.0), std::sin(1.0), 1e-3);
}

} // namespace

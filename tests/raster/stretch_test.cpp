// The raster stretch: input ranges by type, the sigmoid table, computed gamma, hand-computed
// mappings, the table path against the pixel-by-pixel reference on every type pair, and
// the statistics and histograms that drive the stretch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>

#include "raster/algorithms/statistics.h"
#include "raster/algorithms/stretch.h"
#include "raster/mask.h"
#include "raster/pixel_traits.h"

namespace pw::raster::stretch {
namespace {

TEST(Stretch, InputRangeFollowsTheType) {
  const BandStatistics st{10, 210, 100, 20};
  Histogram h{0, 100, std::vector<double>(100, 1.0)};  // one count a unit
  const struct {
    LONG type;
    double minPercent, maxPercent;
    bool withHistogram;
    std::optional<Range> expected;
  } cases[] = {
      {kNone, 0, 0, false, Range{10, 210}},
      {kMinimumMaximum, 0, 0, false, Range{10, 210}},
      {kSigmoid, 0, 0, false, Range{10, 210}},
      {kStandardDeviation, 0, 0, false, Range{60, 140}},  // 2 deviations
      {kPercentClip, 2, 5, true, Range{2, 95}},
      {kPercentClip, 0, 0, true, Range{0, 100}},
      {kPercentClip, 2, 5, false, std::nullopt},  // needs a histogram
      {4, 0, 0, true, std::nullopt},              // not a type of its own here
      {1, 0, 0, false, std::nullopt},
  };
  for (const auto& c : cases) {
    Settings s;
    s.type = c.type;
    s.minPercent = c.minPercent;
    s.maxPercent = c.maxPercent;
    const auto got = InputRange(s, st, c.withHistogram ? &h : nullptr);
    ASSERT_EQ(got.has_value(), c.expected.has_value()) << c.type;
    if (got) {
      EXPECT_DOUBLE_EQ(got->low, c.expected->low) << c.type;
      EXPECT_DOUBLE_EQ(got->high, c.expected->high) << c.type;
    }
  }
}

TEST(Stretch, SigmoidTablesRiseFromZeroToOneAndSteepenWithTheLevel) {
  double previous = 0;
  for (int level = 1; level <= 6; ++level) {
    const auto t = ComputeSigmoidLUT(level, 101);
    ASSERT_EQ(t.size(), 101u);
    EXPECT_DOUBLE_EQ(t.front(), 0);
    EXPECT_DOUBLE_EQ(t.back(), 1);
    EXPECT_NEAR(t[50], 0.5, 1e-12);
    for (std::size_t i = 1; i < t.size(); ++i) ASSERT_GT(t[i], t[i - 1]) << level;
    const double slope = t[51] - t[49];
    EXPECT_GT(slope, previous) << level;
    previous = slope;
  }
}

TEST(Stretch, ComputedGammaPutsTheMeanAtMidRange) {
  for (double mean : {20.0, 50.0, 80.0}) {
    const BandStatistics st{0, 100, mean, 10};
    const Range r{0, 100};
    BandMapping m{r, ComputeGamma(st, r), nullptr, 0, 255};
    EXPECT_NEAR(m(mean), 127.5, 1e-9) << mean;
  }
  EXPECT_DOUBLE_EQ(ComputeGamma({0, 100, 0.0001, 1}, {0, 100}), 10);  // clamped
  EXPECT_DOUBLE_EQ(ComputeGamma({0, 100, 99.99999, 1}, {0, 100}), 0.1);
  EXPECT_DOUBLE_EQ(ComputeGamma({5, 5, 5, 0}, {5, 5}), 1);  // no range
}

TEST(Stretch, MapsLinearlyClampsAndRoundsHalfAwayFromZero) {
  const BandMapping linear{{0, 100}, 1, nullptr, 0, 255};
  const BandMapping gamma{{0, 100}, 2, nullptr, 0, 255};
  const BandMapping flat{{7, 7}, 1, nullptr, 10, 20};
  const struct {
    const BandMapping* m;
    double in;
    LONG outType;
    double out;
  } cases[] = {
      {&linear, 50, 3, 128},    // 127.5 rounds up
      {&linear, -5, 3, 0},      // below the range
      {&linear, 1000, 3, 255},  // above it
      {&linear, 50, 9, 127.5},  // floats keep the fraction
      {&linear, 50, 4, 127},    // 127.5 -> 128, clamped to S8
      {&gamma, 25, 9, 127.5},   // sqrt(0.25) = 0.5
      {&flat, 100, 9, 10},      // an empty range maps to the minimum
  };
  for (const auto& c : cases) {
    const double in = c.in;
    const BYTE mask = 0x80;
    std::uint8_t out[8] = {};
    ASSERT_EQ(Apply(*c.m, 10, &in, &mask, 1, c.outType, out), S_OK);
    double got = 0;
    VisitPixelType(c.outType, [&](auto tag) {
      using O = typename decltype(tag)::type;
      O v;
      std::memcpy(&v, out, sizeof v);
      got = static_cast<double>(v);
    });
    EXPECT_DOUBLE_EQ(got, c.out) << c.in << " to type " << c.outType;
  }
}

TEST(Stretch, TablesEqualTheReferenceOnEveryTypePair) {
  std::mt19937 random(23);
  const auto sigmoid = ComputeSigmoidLUT(3);
  const BandMapping mappings[] = {
      {{-50, 300}, 1, nullptr, 0, 255},
      {{0, 40000}, 0.6, nullptr, -1000, 1000},
      {{10, 200}, 1.7, &sigmoid, 0, 65535},
  };
  constexpr std::size_t n = 517;
  for (LONG in = 3; in <= 10; ++in) {
    std::vector<std::uint8_t> values(n * PixelSize(in));
    VisitPixelType(in, [&](auto tag) {
      using T = typename decltype(tag)::type;
      const ValueRange r = PixelRange(in);
      std::uniform_real_distribution<double> d(std::max(r.lowest, -70000.0),
                                               std::min(r.highest, 70000.0));
      for (std::size_t i = 0; i < n; ++i)
        reinterpret_cast<T*>(values.data())[i] = static_cast<T>(d(random));
    });
    std::vector<BYTE> mask(mask::Bytes(n), 0xFF);
    for (std::size_t i = 0; i < n; i += 7) mask::Clear(mask.data(), i);
    for (const auto& m : mappings) {
      for (LONG out : {0L, 3L, 4L, 5L, 6L, 8L, 9L, 10L}) {
        // Invalid pixels keep what was there.
        std::vector<std::uint8_t> got(n * 8, 0xAB), expected(n * 8, 0xAB);
        ASSERT_EQ(Apply(m, in, values.data(), mask.data(), n, out, got.data()), S_OK);
        ASSERT_EQ(ApplyReference(m, in, values.data(), mask.data(), n, out, expected.data()), S_OK);
        ASSERT_EQ(got, expected) << "in " << in << " out " << out;
      }
    }
  }
}

}  // namespace
}  // namespace pw::raster::stretch

namespace pw::raster {
namespace {

// Statistics and histograms of every type, with invalid cells and a no-data value, against
// a cell-by-cell count; runs long enough that 16-bit values go through the value table.
TEST(BandStatistics, MomentsAndHistogramsEqualACellByCellCount) {
  std::mt19937 random(5);
  for (LONG type = 0; type <= 10; ++type) {
    for (std::size_t n : {std::size_t{1000}, std::size_t{70001}}) {
      SCOPED_TRACE(testing::Message() << "type " << type << ", " << n << " cells");
      const ValueRange range = PixelRange(type);
      const double low = std::max(range.lowest, -3000.0), high = std::min(range.highest, 3000.0);
      std::vector<std::uint8_t> values(n * PixelSize(type));
      std::vector<double> plain(n);
      std::vector<BYTE> valid(mask::Bytes(n), 0xFF);
      std::uniform_int_distribution<int> pick(static_cast<int>(low), static_cast<int>(high));
      VisitPixelType(type, [&](auto tag) {
        using T = typename decltype(tag)::type;
        for (std::size_t i = 0; i < n; ++i) {
          plain[i] = static_cast<double>(static_cast<T>(pick(random)));
          reinterpret_cast<T*>(values.data())[i] = static_cast<T>(plain[i]);
          if (random() % 7 == 0) mask::Clear(valid.data(), i);
        }
      });
      const double noData = plain[3];
      Moments want;
      for (std::size_t i = 0; i < n; ++i)
        if (mask::Get(valid.data(), i) && plain[i] != noData) want.Add(plain[i]);
      Moments got;
      double lo = 0, hi = 0;
      std::vector<double> bins;
      ComputeMomentsAndHistogram(type, values.data(), valid.data(), n, noData, &got, &lo, &hi,
                                 &bins);
      const Moments alone = ComputeMoments(type, values.data(), valid.data(), n, noData);
      for (const Moments* m : {static_cast<const Moments*>(&got), &alone}) {
        EXPECT_EQ(m->count, want.count);
        EXPECT_EQ(m->minimum, want.minimum);
        EXPECT_EQ(m->maximum, want.maximum);
        EXPECT_NEAR(m->sum, want.sum, 1e-9 * std::abs(want.sumOfSquares));
        EXPECT_NEAR(m->sumOfSquares, want.sumOfSquares, 1e-12 * want.sumOfSquares);
      }
      // The bins: each counted cell once, in the bin its value falls in.
      std::vector<double> brute(bins.size(), 0.0);
      const double width = (hi - lo) / static_cast<double>(bins.size());
      for (std::size_t i = 0; i < n; ++i) {
        if (!mask::Get(valid.data(), i) || plain[i] == noData) continue;
        const double k = width > 0 ? std::floor((plain[i] - lo) / width) : 0;
        brute[static_cast<std::size_t>(std::clamp(k, 0.0, static_cast<double>(bins.size() - 1)))] +=
            1;
      }
      EXPECT_EQ(bins, brute);
      std::vector<double> again;
      AccumulateHistogram(type, values.data(), valid.data(), n, noData, lo, hi, &again);
      EXPECT_EQ(again, brute);
    }
  }
}

}  // namespace
}  // namespace pw::raster

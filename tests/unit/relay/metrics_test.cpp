#include "base/metrics.h"

#include <gtest/gtest.h>

#include <numeric>
#include <set>

namespace relay {
namespace {

using namespace std::chrono_literals;

TEST(CountedStatus, IsTheClassOfAnUnknownNumber) {
    for (const unsigned known : {0u, 200u, 206u, 404u, 504u})
        EXPECT_EQ(counted_status(known), known);
    EXPECT_EQ(counted_status(299), 2u);
    EXPECT_EQ(counted_status(555), 5u);
    std::set<unsigned> series;
    for (unsigned status = 100; status < 600; ++status)
        series.insert(counted_status(status));
    EXPECT_LT(series.size(), 80u);
}

TEST(LatencyHistogram, BoundsBelongToTheirBucket) {
    for (std::size_t i = 0; i < LatencyHistogram::bounds.size(); ++i) {
        LatencyHistogram histogram;
        histogram.add(std::chrono::duration<double>(LatencyHistogram::bounds[i]));
        EXPECT_EQ(histogram.counts[i], 1u) << LatencyHistogram::bounds[i];
        histogram.add(std::chrono::duration<double>(LatencyHistogram::bounds[i] * 1.0001));
        EXPECT_EQ(histogram.counts[i + 1], 1u) << LatencyHistogram::bounds[i];
    }
}

TEST(LatencyHistogram, CountsWhatLiesAboveAllBoundsLast) {
    LatencyHistogram histogram;
    histogram.add(1h);
    EXPECT_EQ(histogram.counts.back(), 1u);
}

TEST(LatencyHistogram, SumsEveryTime) {
    LatencyHistogram histogram;
    histogram.add(0ms);
    histogram.add(250ms);
    histogram.add(20s);
    EXPECT_DOUBLE_EQ(histogram.sum_s, 20.25);
    EXPECT_EQ(std::accumulate(histogram.counts.begin(), histogram.counts.end(), 0ul), 3ul);
}

TEST(LatencyHistogram, BoundsRise) {
    EXPECT_TRUE(std::is_sorted(LatencyHistogram::bounds.begin(), LatencyHistogram::bounds.end()));
}

TEST(Metrics, RefusalsAreCountedByCause) {
    Metrics metrics;
    metrics.refuse(Refusal::tls);
    metrics.refuse(Refusal::draining);
    metrics.refuse(Refusal::draining);
    EXPECT_EQ(metrics.refusals.front(), 1u);
    EXPECT_EQ(metrics.refusals.back(), 2u);
    EXPECT_EQ(refusal_names[static_cast<std::size_t>(Refusal::not_admitted)], "not_admitted");
    EXPECT_EQ(std::set(refusal_names.begin(), refusal_names.end()).size(), refusal_names.size());
}

} // namespace
} // namespace relay

// SPDX-License-Identifier: Apache-2.0

// Metrics without a daemon: the text of both formats, histograms, and the bound on the number of series.

#include <algorithm>

#include <gtest/gtest.h>

#include "base/text.h"
#include "daemon/api/metrics/metrics.h"

using namespace l2fibd;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

namespace {

TEST(Exposition, FollowsTheAcceptHeader)
{
    const auto open = exposition_format::open_metrics;
    const auto text = exposition_format::text;
    const struct {
        const char *accept;
        exposition_format format;
    } rows[] = {
        {nullptr, text},
        {"*/*", text},
        {"application/openmetrics-text", open},
        {"application/openmetrics-text; version=0.0.1", text},
        {"text/plain;version=0.0.4, application/openmetrics-text;version=1.0.0;q=0.9", text},
        {"text/plain;version=0.0.4;q=0.5 , application/openmetrics-text ; version=1.0.0 ; q=0.75", open},
        {";,;q=,application/openmetrics-text;q=x", text},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(format_of(row.accept), row.format) << (row.accept != nullptr ? row.accept : "none");
    }
}

std::string small_answer(exposition_format format)
{
    exposition text(format);
    text.begin({"cpu_seconds", metric_type::counter, "Used.", "seconds"});
    text.sample({}, 0.25);
    text.begin({"build", metric_type::info, "Version."});
    text.sample({{"a", "x\\y\"z\n"}, {"b", "\xff\xc3\xa4"}}, uint64_t{1});
    return text.take();
}

TEST(Exposition, WritesBothFormats)
{
    const std::string samples[] = {"cpu_seconds_total 0.25\n",
                                   "build_info{a=\"x\\\\y\\\"z\\\\x0a\",b=\"\\\\xff\xc3\xa4\"} 1\n"};
    EXPECT_EQ(small_answer(exposition_format::text),
              "# TYPE cpu_seconds_total counter\n# HELP cpu_seconds_total Used.\n" + samples[0]
                  + "# TYPE build_info gauge\n# HELP build_info Version.\n" + samples[1]);
    EXPECT_EQ(small_answer(exposition_format::open_metrics),
              "# TYPE cpu_seconds counter\n# UNIT cpu_seconds seconds\n# HELP cpu_seconds Used.\n" + samples[0]
                  + "# TYPE build info\n# HELP build Version.\n" + samples[1] + "# EOF\n");
}

TEST(DurationHistogram, CountsUpToEachBound)
{
    duration_histogram durations;
    for (const nanoseconds each : {nanoseconds(0), nanoseconds(milliseconds(1)), nanoseconds(1'000'001),
                                   nanoseconds(milliseconds(300)), nanoseconds(std::chrono::minutes(2))}) {
        durations.add(each);
    }
    exposition text(exposition_format::text);
    text.begin({"d", metric_type::histogram, "D."});
    text.samples({{"r", "x"}}, durations.read());
    const std::string written = text.take();
    for (const char *line :
         {"d_bucket{r=\"x\",le=\"0.001\"} 2\n", "le=\"0.003\"} 3\n", "le=\"0.1\"} 3\n", "le=\"0.3\"} 4\n",
          "le=\"10.0\"} 4\n", "le=\"+Inf\"} 5\nd_sum{r=\"x\"} 120.302000001\n", "d_count{r=\"x\"} 5\n"}) {
        EXPECT_NE(written.find(line), std::string::npos) << line << written;
    }
}

// A thousand bridge domains, the first of them the smallest, and more pools, resources and reasons than there are.
TEST(Metrics, LimitTheNumberOfSeries)
{
    constexpr uint16_t count = 1'000;
    auto objects = std::make_shared<forwarding::object_views>();
    forwarding::domain_counts all{objects, {}};
    for (uint16_t id = 1; id <= count; id++) {
        forwarding::domain_view view;
        view.bridge_id = id;
        view.name = "lab:br" + std::to_string(id);
        objects->domains.put(std::move(view));
        all.counts.push_back({.learned = std::min<uint32_t>(id, 991), .fixed = 2, .local = 1});
    }
    metric_figures figures;
    figures.domains = largest_domains(all);
    ASSERT_EQ(figures.domains.size(), max_domains_in_metrics + 1);
    EXPECT_EQ(figures.domains.front().name, "lab:br991");
    EXPECT_EQ(figures.domains[max_domains_in_metrics - 1].name, "lab:br901");
    EXPECT_EQ(figures.domains.back().name, other_domains);
    EXPECT_EQ(figures.domains.back().counts.learned, 900u * 901 / 2);

    figures.pools.resize(12);
    figures.requests.resize(max_resources + 1);
    figures.health.unmapped.resize(16, {"a reason", 1});
    figures.health.refused.resize(8, {"a reason", 1});
    const std::string text = metrics_text(figures, exposition_format::text);
    const auto lines = base::split(text, '\n');
    const auto series = std::ranges::count_if(lines, [](auto line) { return !line.empty() && line.front() != '#'; });
    EXPECT_LE(static_cast<size_t>(series), max_metric_series);
    EXPECT_GT(static_cast<size_t>(series), 3 * max_domains_in_metrics);
}

} // namespace

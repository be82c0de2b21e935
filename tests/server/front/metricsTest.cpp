#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "server/front/metrics.h"

namespace corvaned {
namespace {

using std::chrono::milliseconds;
using ::testing::HasSubstr;

TEST(Metrics, RequestsAreCountedByActionAndError) {
  Metrics metrics;
  metrics.served("search", "", milliseconds(1));
  metrics.served("search", "", milliseconds(1));
  metrics.served("search", "ZVK0010E", milliseconds(1));
  const std::string text = metrics.text();
  EXPECT_THAT(text, HasSubstr("# TYPE corvaned_requests_total counter\n"));
  EXPECT_THAT(text, HasSubstr("corvaned_requests_total{action=\"search\",error=\"\"} 2\n"));
  EXPECT_THAT(text, HasSubstr("corvaned_requests_total{action=\"search\",error=\"ZVK0010E\"} 1\n"));
}

TEST(Metrics, BucketsOfAHistogramHoldThoseBelowThem) {
  Metrics metrics;
  for (const int millis : {1, 2, 3, 500, 60000, 61000}) {
    metrics.served("search", "", milliseconds(millis));
  }
  const std::string text = metrics.text();
  const auto bucket = [](const char* bound, int count) {
    return "corvaned_request_seconds_bucket{action=\"search\",le=\"" + std::string(bound) + "\"} " +
           std::to_string(count) + "\n";
  };
  for (const std::string& line :
       {bucket("0.001", 1), bucket("0.002", 2), bucket("0.005", 3), bucket("0.1", 3),
        bucket("0.5", 4), bucket("20", 4), bucket("60", 5), bucket("+Inf", 6)}) {
    EXPECT_THAT(text, HasSubstr(line));
  }
  EXPECT_THAT(text, HasSubstr("corvaned_request_seconds_count{action=\"search\"} 6\n"));
  EXPECT_THAT(text, HasSubstr("corvaned_request_seconds_sum{action=\"search\"} 121.506\n"));
}

TEST(Metrics, ConnectionsAreThoseTakenAndNotEnded) {
  Metrics metrics;
  metrics.connectionTaken();
  metrics.connectionTaken();
  metrics.connectionEnded();
  metrics.connectionTurnedAway();
  EXPECT_THAT(metrics.text(), HasSubstr("\ncorvaned_connections 1\n"));
  EXPECT_THAT(metrics.text(), HasSubstr("\ncorvaned_connections_total 2\n"));
  EXPECT_THAT(metrics.text(), HasSubstr("\ncorvaned_connections_turned_away_total 1\n"));
}

TEST(Metrics, CollectionsAreCountedByConditionWithoutTheirNames) {
  std::string text;
  appendCollections(text, {5, 1, 2, 3});
  EXPECT_THAT(text, HasSubstr("# TYPE corvaned_collections gauge\n"));
  EXPECT_THAT(text, HasSubstr("\ncorvaned_collections{condition=\"sound\"} 5\n"
                              "corvaned_collections{condition=\"refuses_changes\"} 1\n"
                              "corvaned_collections{condition=\"not_updated\"} 2\n"
                              "corvaned_collections{condition=\"not_opened\"} 3\n"));
}

TEST(Metrics, NoticeTellsWhatIsWrongAndNothingElse) {
  EXPECT_EQ(noticeOf({}), "");
  EXPECT_EQ(noticeOf({7, 0, 0, 0}), "");
  EXPECT_EQ(noticeOf({7, 0, 2, 1}),
            "collections with the status 2: not_updated=2 not_opened=1; the log says which and "
            "why\n");
  EXPECT_THAT(noticeOf({0, 1, 0, 0}), HasSubstr(": refuses_changes=1;"));
}

}  // namespace
}  // namespace corvaned

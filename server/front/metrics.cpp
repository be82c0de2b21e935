#include "server/front/metrics.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace corvaned {
namespace {

void appendHead(std::string& out, std::string_view name, std::string_view type,
                std::string_view help) {
  fmt::format_to(std::back_inserter(out), "# HELP {0} {1}\n# TYPE {0} {2}\n", name, help, type);
}

using Condition = std::pair<std::string_view, std::uint64_t>;

std::array<Condition, 3> defectsIn(const CollectionCounts& counts) {
  return {{{"refuses_changes", counts.refusing},
           {"not_updated", counts.notUpdated},
           {"not_opened", counts.notOpened}}};
}

}  // namespace

void appendCollections(std::string& out, const CollectionCounts& counts) {
  const std::string_view name = "corvaned_collections";
  appendHead(out, name, "gauge", "Collections that are in use, or cannot be opened, by condition.");
  const auto append = [&](const Condition& condition) {
    fmt::format_to(std::back_inserter(out), "{}{{condition=\"{}\"}} {}\n", name, condition.first,
                   condition.second);
  };
  append({"sound", counts.sound});
  for (const Condition& defect : defectsIn(counts)) append(defect);
}

std::string noticeOf(const CollectionCounts& counts) {
  std::string list;
  for (const auto& [condition, count] : defectsIn(counts)) {
    if (count > 0) list += fmt::format("{}{}={}", list.empty() ? "" : " ", condition, count);
  }
  if (list.empty()) return {};
  return "collections with the status 2: " + list + "; the log says which and why\n";
}

void appendMetric(std::string& out, std::string_view name, std::string_view type,
                  std::string_view help, std::uint64_t value) {
  appendHead(out, name, type, help);
  fmt::format_to(std::back_inserter(out), "{} {}\n", name, value);
}

void Metrics::served(std::string_view action, std::string_view error,
                     std::chrono::nanoseconds time) {
  const auto bound = std::find_if(kBounds.begin(), kBounds.end(), [&](std::uint32_t millis) {
    return time <= std::chrono::milliseconds(millis);
  });
  const std::lock_guard lock(mutex_);
  ++served_[{std::string(action), std::string(error)}];
  Latency& latency = latencies_[std::string(action)];
  ++latency.buckets[static_cast<std::size_t>(bound - kBounds.begin())];
  latency.nanoseconds += static_cast<std::uint64_t>(time.count());
}

void Metrics::refused(std::string_view error) {
  const std::lock_guard lock(mutex_);
  ++served_[{"unknown", std::string(error)}];
}

std::string Metrics::text() const {
  std::string out;
  const auto put = std::back_inserter(out);
  const std::lock_guard lock(mutex_);
  appendHead(out, "corvaned_requests_total", "counter", "Requests by action and error id.");
  for (const auto& [key, count] : served_) {
    fmt::format_to(put, "corvaned_requests_total{{action=\"{}\",error=\"{}\"}} {}\n", key.first,
                   key.second, count);
  }
  const std::string_view name = "corvaned_request_seconds";
  appendHead(out, name, "histogram", "Time from a request's arrival to its reply, by action.");
  for (const auto& [action, latency] : latencies_) {
    std::uint64_t count = 0;
    for (std::size_t i = 0; i < latency.buckets.size(); ++i) {
      count += latency.buckets[i];
      const std::string bound = i == kBounds.size() ? "+Inf" : fmt::format("{}", kBounds[i] / 1e3);
      fmt::format_to(put, "{}_bucket{{action=\"{}\",le=\"{}\"}} {}\n", name, action, bound, count);
    }
    fmt::format_to(put, "{0}_sum{{action=\"{1}\"}} {2}\n{0}_count{{action=\"{1}\"}} {3}\n", name,
                   action, static_cast<double>(latency.nanoseconds) / 1e9, count);
  }
  appendMetric(out, "corvaned_connections", "gauge", "Connections that are open.", taken_ - ended_);
  appendMetric(out, "corvaned_connections_total", "counter", "Connections that were taken.",
               taken_);
  appendMetric(out, "corvaned_connections_turned_away_total", "counter",
               "Connections beyond --max-connections.", turnedAway_);
  return out;
}

}  // namespace corvaned

#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "server/store/store.h"

namespace corvaned {

/// The request asks for no reply.
struct NoReply {};
/// Success without a result.
struct DoneReply {};
struct ErrorReply {
  std::string id;
  std::string text;
};
/// Nobody may ask without saying who they are.
struct UnauthorizedReply {
  ErrorReply reason;
};
struct HitsReply {
  std::unique_ptr<HitSource> hits;
  bool withScore = false;
  bool streaming = false;
};
struct OutcomesReply {
  std::vector<ParseOutcome> outcomes;
};
/// Facts about collections or documents, each in a record like an outcome.
struct ReportReply {
  struct Line {
    std::string subject;
    std::string messageId;
    std::string messageText;
  };
  std::vector<Line> lines;
  /// What keeps their memory set aside.
  std::shared_ptr<const void> memory{};
};
struct EstimateReply {
  Estimate estimate;
};
/// 0: ready; 1: changes wait for updateIndex; 2: not available, with the reason.
struct StatusReply {
  std::uint32_t code = 0;
  ErrorReply reason;
};
struct TextReply {
  std::string text;
};

/// The reply to a request, independent of the protocol.
using Reply = std::variant<NoReply, DoneReply, ErrorReply, HitsReply, OutcomesReply, ReportReply,
                           EstimateReply, StatusReply, TextReply, UnauthorizedReply>;

}  // namespace corvaned

#pragma once

#include <functional>
#include <string>

#include "server/front/reply.h"
#include "server/front/request.h"
#include "server/front/service.h"

namespace corvaned {

/// Whether a request to add documents brings them in a batch. Throws ServerError if it has
/// parameters that only batches take and brings none.
bool bringsBatch(const Request& request);

/// How the documents of a batch are read.
struct BatchReading {
  /// What the request says of that; empty if nothing.
  std::string said;
  /// Makes a document what is stored of it, or throws ServerError.
  std::function<void(Document&)> prepare;
};

/// Applies the batch. The request's content is consumed.
Reply applyBatch(const Service& service, Request& request, const BatchReading& reading);

/// Tells what became of the batch that the request names.
Reply batchOutcome(const Service& service, const Request& request);

}  // namespace corvaned

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

/// Applies the batch. `prepare` makes a document what is stored of it, or throws ServerError. The
/// request's content is consumed.
Reply applyBatch(const Service& service, Request& request,
                 const std::function<void(Document&)>& prepare);

/// Tells what became of the batch that the request names.
Reply batchOutcome(const Service& service, const Request& request);

}  // namespace corvaned

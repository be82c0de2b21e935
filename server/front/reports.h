#pragma once

#include "server/front/reply.h"
#include "server/front/request.h"
#include "server/front/service.h"

namespace corvaned {

/// Whether the request asks for facts in place of the outcomes of queued documents.
bool asksForReport(const Request& request);

/// The facts that the request asks for. Throws ServerError.
Reply report(const Service& service, const Request& request);

}  // namespace corvaned

#pragma once

#include <string_view>

#include "server/front/reply.h"
#include "server/front/request.h"
#include "server/front/service.h"

namespace corvaned {

/// Whether the request asks for facts in place of the outcomes of queued documents.
bool asksForReport(const Request& request);

/// Whether this report is one of the whole server and not of a collection.
bool isReportOfServer(std::string_view name);

/// The facts that the request asks for. Throws ServerError.
Reply report(const Service& service, const Request& request);

}  // namespace corvaned

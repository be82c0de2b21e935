#pragma once

#include <list>
#include <string>

#include "comm/kruClientRequest.h"
#include "comm/kruKVPair.h"

namespace corvane {

/// A request to a collection, whose name has been checked by headerValue().
tq::comm::ClientRequest collectionRequest(tq::comm::ClientRequest::REQUEST kind,
                                          const icu::UnicodeString& collection,
                                          const tq::util::ExtendedProperties& properties = {});

/// Gives the request a document: key and text are pointed at, not copied, and must outlive its
/// sending. The library refuses a key without metadata, so a document that has none gets the one
/// pair "key" = its key.
void attachDocument(tq::comm::ClientRequest& request, const std::string& key,
                    const std::string& text, std::list<tq::comm::KVPair> metadata);

}  // namespace corvane

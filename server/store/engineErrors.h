#pragma once

#include <xapian.h>

#include "server/base/errors.h"

namespace corvaned {

/// What the work returns; the engine's errors as those of the server.
template <typename Work>
auto translated(const Work& work) {
  try {
    return work();
  } catch (const Xapian::QueryParserError& error) {
    throw ServerError(ErrorKind::BadQuery, "the query cannot be understood: " + error.get_msg());
  } catch (const Xapian::WildcardError& error) {
    throw ServerError(ErrorKind::QueryTooBroad, "the query is too broad: " + error.get_msg());
  } catch (const Xapian::DatabaseModifiedError&) {
    throw ServerError(ErrorKind::TryAgain,
                      "the index changed too often while it was being searched; try again");
  } catch (const Xapian::Error& error) {
    throw ServerError(ErrorKind::StorageFailed, "the index failed: " + error.get_description());
  }
}

}  // namespace corvaned

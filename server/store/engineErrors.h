#pragma once

#include <xapian.h>

#include "server/base/errors.h"
#include "server/store/damage.h"

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
  } catch (const Xapian::DatabaseCorruptError& error) {
    throw DamageError("the index is damaged where its checksums do not show it (" +
                      error.get_description() +
                      "); stop the server and run corvaned check, which names the places, then "
                      "corvaned repair, or restore the collection");
  } catch (const Xapian::Error& error) {
    throw ServerError(ErrorKind::StorageFailed, "the index failed: " + error.get_description());
  }
}

}  // namespace corvaned

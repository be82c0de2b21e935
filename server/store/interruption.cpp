#include "server/store/interruption.h"

namespace corvaned {

void Interruption::init(const Xapian::Database& database) {
  documents_ = database.get_doccount();
  next_ = database.postlist_begin("");
  end_ = database.postlist_end("");
  document_ = 0;
  atEnd_ = false;
}

// Another part of the query has found the document, so it exists.
bool Interruption::check(Xapian::docid document, double) {
  request_.spend(1);
  document_ = document;
  return true;
}

void Interruption::moveTo(Xapian::docid least) {
  request_.spend(1);
  if (next_ != end_) next_.skip_to(least);
  atEnd_ = next_ == end_;
  if (!atEnd_) document_ = *next_;
}

Interruptible::Interruptible(const Xapian::Query& query) : query_(query) {
  RequestContext* request = RequestContext::current();
  if (!request || query.empty()) return;
  request->check();
  interruption_.emplace(*request);
  query_ = Xapian::Query(Xapian::Query::OP_FILTER, query, Xapian::Query(&*interruption_));
}

}  // namespace corvaned

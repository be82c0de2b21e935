#pragma once

#include <xapian.h>

#include <optional>
#include <string>

#include "server/base/requestContext.h"

namespace corvaned {

/// Matches every document. The engine asks it about each candidate, and nothing else lets a search
/// that is under way be stopped.
class Interruption : public Xapian::PostingSource {
 public:
  explicit Interruption(RequestContext& request) : request_(request) {}

  Xapian::doccount get_termfreq_min() const override { return documents_; }
  Xapian::doccount get_termfreq_est() const override { return documents_; }
  Xapian::doccount get_termfreq_max() const override { return documents_; }

  void init(const Xapian::Database& database) override;
  void next(double) override { moveTo(document_ + 1); }
  void skip_to(Xapian::docid document, double) override {
    if (document > document_) moveTo(document);
  }
  bool check(Xapian::docid document, double) override;
  bool at_end() const override { return atEnd_; }
  Xapian::docid get_docid() const override { return document_; }
  // Each of several databases gets one of its own.
  Interruption* clone() const override { return new Interruption(request_); }
  std::string get_description() const override { return "Interruption"; }

 private:
  void moveTo(Xapian::docid least);

  RequestContext& request_;
  Xapian::doccount documents_ = 0;
  Xapian::PostingIterator next_;
  Xapian::PostingIterator end_;
  Xapian::docid document_ = 0;
  bool atEnd_ = false;
};

/// A query that ends with an exception once the request for it has to end.
class Interruptible {
 public:
  explicit Interruptible(const Xapian::Query& query);
  Interruptible(const Interruptible&) = delete;
  Interruptible& operator=(const Interruptible&) = delete;

  const Xapian::Query& query() const { return query_; }

 private:
  std::optional<Interruption> interruption_;
  Xapian::Query query_;
};

}  // namespace corvaned

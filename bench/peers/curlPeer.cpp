// libcurl on a connection that is kept: the small exchange, an upload, and a search whose hits come
// as JSON, an array of a thousand a line, read by simdjson into texts and scores.

#include <curl/curl.h>
#include <simdjson.h>

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/peers/peer.h"

namespace {

using bench::Options;

struct Deleter {
  void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
  void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
using Lines = std::unique_ptr<curl_slist, Deleter>;

template <typename Value>
void set(CURL* handle, CURLoption option, Value value) {
  if (curl_easy_setopt(handle, option, value) != CURLE_OK) throw std::runtime_error("an option");
}

Lines linesOf(const std::vector<std::string>& texts) {
  curl_slist* list = nullptr;
  for (const auto& text : texts) list = curl_slist_append(list, text.c_str());
  return Lines(list);
}

class Handle {
 public:
  Handle(const Options& options, Lines lines)
      : handle_(curl_easy_init()), lines_(std::move(lines)) {
    const std::string url = "http://127.0.0.1:" + options.text("port", "0") + "/";
    set(get(), CURLOPT_URL, url.c_str());
    set(get(), CURLOPT_HTTPHEADER, lines_.get());
    set(get(), CURLOPT_BUFFERSIZE, 262144L);
    set(get(), CURLOPT_PROXY, "");
  }
  CURL* get() const { return handle_.get(); }
  void perform() const {
    if (curl_easy_perform(get()) != CURLE_OK) throw std::runtime_error("an exchange failed");
  }

 private:
  std::unique_ptr<CURL, Deleter> handle_;
  Lines lines_;
};

std::size_t appendTo(char* data, std::size_t size, std::size_t count, void* out) {
  static_cast<std::string*>(out)->append(data, size * count);
  return size * count;
}

void exchange(const Options& options) {
  std::vector<std::string> lines{"action: getStatus", "actionType: monitor"};
  for (const auto& field : bench::kStatusFields) {
    lines.push_back(std::string(field.name) + ": " + field.value);
  }
  const Handle handle(options, linesOf(lines));
  std::string reply;
  set(handle.get(), CURLOPT_WRITEFUNCTION, &appendTo);
  set(handle.get(), CURLOPT_WRITEDATA, &reply);
  bench::measure(options, 1, [&] {
    reply.clear();
    handle.perform();
    if (reply.empty()) throw std::runtime_error("no reply");
  });
}

void document(const Options& options) {
  const Handle handle(options, linesOf({"action: addDocument", "index: c1", "Expect:"}));
  const std::string body(options.number("bytes", 1024), 'd');
  set(handle.get(), CURLOPT_POST, 1L);
  set(handle.get(), CURLOPT_POSTFIELDSIZE, static_cast<long>(body.size()));
  set(handle.get(), CURLOPT_POSTFIELDS, body.data());
  bench::measure(options, 1, [&] { handle.perform(); });
}

struct Hit {
  std::string id;
  double score;
};

/// The lines of a reply, each parsed when its end has come.
class Search {
 public:
  static std::size_t take(char* data, std::size_t size, std::size_t count, void* search) {
    static_cast<Search*>(search)->append({data, size * count});
    return size * count;
  }

  std::uint64_t seen() const { return seen_; }
  double scores() const { return scores_; }

 private:
  void append(std::string_view bytes) {
    const std::size_t old = waiting_.size();
    waiting_ += bytes;
    std::size_t begin = 0;
    for (std::size_t end = waiting_.find('\n', old); end != std::string::npos;
         end = waiting_.find('\n', begin)) {
      parse(begin, end - begin);
      begin = end + 1;
    }
    waiting_.erase(0, begin);
  }

  void parse(std::size_t begin, std::size_t size) {
    waiting_.reserve(waiting_.size() + simdjson::SIMDJSON_PADDING);
    auto parsed = parser_.iterate(waiting_.data() + begin, size, waiting_.capacity() - begin);
    std::vector<Hit> hits;
    for (auto hit : parsed.get_array()) {
      const std::string_view id = hit["id"].get_string();
      hits.push_back({std::string(id), hit["score"].get_double()});
    }
    seen_ += hits.size();
    for (const auto& hit : hits) scores_ += hit.score + hit.id[30];
  }

  std::string waiting_;
  simdjson::ondemand::parser parser_;
  std::uint64_t seen_ = 0;
  double scores_ = 0;
};

void hits(const Options& options) {
  const std::uint64_t count = options.number("count", 1000000);
  const Handle handle(options, linesOf({"action: searchJson", "query: " + std::to_string(count)}));
  set(handle.get(), CURLOPT_WRITEFUNCTION, &Search::take);
  bench::measure(options, count, [&] {
    Search search;
    set(handle.get(), CURLOPT_WRITEDATA, &search);
    handle.perform();
    if (search.seen() != count || search.scores() == 0)
      throw std::runtime_error("hits are missing");
  });
}

}  // namespace

int main(int argc, char** argv) {
  return bench::runPeer("curlPeer", argc, argv,
                        {{"exchange", exchange}, {"document", document}, {"hits", hits}});
}

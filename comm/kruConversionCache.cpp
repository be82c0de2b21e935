#include "comm/kruConversionCache.h"

#include <array>
#include <atomic>
#include <memory>
#include <type_traits>

#include "infra/oss/kruConverter.h"

namespace tq::comm {

namespace {

struct Entry {
  icu::UnicodeString text;
  tq::oss::UTF8String utf8;
  const Entry* next;
};

// Entries are put in front of their bucket and never move or go away, so that a reader needs no
// more than an acquiring load to walk a bucket.
struct Table {
  std::array<std::atomic<const Entry*>, 256> buckets{};
};

// Neither built nor destroyed at run time: looking up needs no memory and works in any static
// constructor, and a thread of the host may still be encoding while the process ends.
constinit Table table;
static_assert(std::is_trivially_destructible_v<Table>);

std::atomic<const Entry*>& bucketOf(const icu::UnicodeString& text) noexcept {
  const std::int32_t length = text.length();
  // Length and three letters tell the protocol's words apart well enough; hashing all of a long
  // text would cost more than converting it.
  const std::uint32_t hash = static_cast<std::uint32_t>(length) * 31U + text.charAt(0) * 7U +
                             text.charAt(length / 2) * 13U + text.charAt(length - 1);
  return table.buckets[hash % 256];
}

const Entry* findFrom(const Entry* entry, const icu::UnicodeString& text) noexcept {
  while (entry != nullptr && entry->text != text) entry = entry->next;
  return entry;
}

}  // namespace

const tq::oss::UTF8String* ConversionCache::find(const icu::UnicodeString& text) noexcept {
  const Entry* entry = findFrom(bucketOf(text).load(std::memory_order_acquire), text);
  return entry != nullptr ? &entry->utf8 : nullptr;
}

void ConversionCache::add(const icu::UnicodeString& text) {
  std::atomic<const Entry*>& bucket = bucketOf(text);
  const Entry* first = bucket.load(std::memory_order_acquire);
  if (findFrom(first, text) != nullptr) return;
  auto entry = std::make_unique<Entry>(Entry{text, tq::oss::UTF8String(text), first});
  tq::oss::Converter::checked(entry->text);
  // No lock: a child that is forked while another thread has it would wait for it for ever. Two
  // threads may both add a text, of whose forms the one in front is then found.
  while (!bucket.compare_exchange_weak(entry->next, entry.get(), std::memory_order_acq_rel)) {
  }
  static_cast<void>(entry.release());
}

std::uint64_t ConversionCache::lengthOf(const icu::UnicodeString& text) noexcept {
  const tq::oss::UTF8String* cached = find(text);
  return cached != nullptr ? cached->length() : tq::oss::Converter::utf8Length(text);
}

}  // namespace tq::comm

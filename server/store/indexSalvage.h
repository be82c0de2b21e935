#pragma once

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "server/store/damage.h"
#include "server/store/indexForm.h"
#include "server/store/store.h"

namespace corvaned {

/// Reads what can be read of an index in which the given places are damaged.
///
/// The engine must not see damaged blocks. It works on a copy, in which they begin with a revision
/// that is too high: the engine refuses such a block whenever it comes across one.
class IndexSalvage {
 public:
  /// Makes the copy of the collection's index in `work`, which must not exist. Throws
  /// ServerError(StorageFailed) if nothing of the index can be read.
  IndexSalvage(const std::filesystem::path& collection, const std::vector<Damage>& damage,
               std::filesystem::path work);
  /// Removes the copy.
  ~IndexSalvage();
  IndexSalvage(const IndexSalvage&) = delete;
  IndexSalvage& operator=(const IndexSalvage&) = delete;

  /// Nothing if it cannot be read.
  std::optional<IndexForm> form() const;
  /// How many databases share the documents.
  std::size_t parts() const { return databases_.size(); }

  using DocumentVisitor = std::function<void(Document&& document)>;
  /// A document that is lost: in which database, and there the number and the key, which is empty
  /// if it is lost as well. All are lost of a collection that does not keep texts.
  using LossVisitor =
      std::function<void(std::size_t part, std::uint64_t number, const std::string& key)>;
  void read(const DocumentVisitor& onDocument, const LossVisitor& onLoss) const;

 private:
  void undoLastChange(const std::filesystem::path& collection) const;
  void refuseBlocks(const std::filesystem::path& collection,
                    const std::vector<Damage>& damage) const;
  void readFrom(std::size_t part, bool keepsText, const DocumentVisitor& onDocument,
                const LossVisitor& onLoss) const;

  const std::filesystem::path work_;
  // Those of the copy.
  std::vector<std::filesystem::path> databases_;
};

}  // namespace corvaned

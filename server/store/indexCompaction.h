#pragma once

#include <filesystem>

#include "server/store/stopCheck.h"

namespace corvaned {

/// Writes the index of a collection anew into as few blocks as it needs, and puts that in its
/// place. The engine fills the blocks of deleted documents again, but never gives them back, and
/// leaves room in those that grow. Numbers of documents, texts and metadata stay.
///
/// Nobody else may use the collection, whose index must be sound. A crash leaves the earlier index
/// or the new one. Throws ServerError(StorageFailed); the index is then as it was.
void compactIndex(
    const std::filesystem::path& collection, const StopCheck& stop = [] {});

}  // namespace corvaned

#pragma once

#include <filesystem>

#include "server/store/store.h"

namespace corvaned {

// What is chosen for a collection when it is created and its index does not need to know. It stands
// in the file "options" of the collection's directory:
//
//     refresh = immediate
//     checksum = 0a1b2c3d
//
// with the CRC-32 of the lines before, in hexadecimal digits. A collection without the file has the
// default of each option, as those of earlier versions.

//
// How the documents of the collection are read where their request does not say it is set later,
// and stands in the file "document-defaults", with a line for whatever somebody has set:
//
//     docType = html
//     charset = windows-1252
//     docLang = de
//     checksum = 0a1b2c3d

std::filesystem::path optionsPath(const std::filesystem::path& collection);

/// Makes the file, durably but for the directory.
void writeOptions(const std::filesystem::path& collection, const Refresh& refresh);

/// Throws ServerError(StorageFailed) if the file is damaged.
Refresh readOptions(const std::filesystem::path& collection);

std::filesystem::path documentDefaultsPath(const std::filesystem::path& collection);

/// Replaces the file in one step, durably. Without anything to write there is none.
void writeDocumentDefaults(const std::filesystem::path& collection,
                           const DocumentReading& defaults);

/// Throws ServerError(StorageFailed) if the file is damaged.
DocumentReading readDocumentDefaults(const std::filesystem::path& collection);

}  // namespace corvaned

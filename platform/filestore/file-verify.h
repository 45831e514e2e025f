// Proving stored content without keeping it: the pieces of a file id are
// read once, in order, into a SHA-256, and compared with its row.
#pragma once

#include <cstdint>
#include <string>

#include "file-store-db.h"
#include "store-cipher.h"

namespace filestore {

// Reads the content of `file_id` (opened with `key` when its pieces are
// sealed) and checks its size and hash. kErrNotFound for an unknown or
// released id; kErrCorrupt for a broken chain, a missing, short or damaged
// piece or content that does not match; kErrInvalid for sealed pieces and
// no key. On failure `problem` says what, in a few words.
int VerifyContent(FileTable& table, const std::string& folder, const patch::CipherKey* key,
                  uint64_t file_id, std::string& problem);

// Only that every piece `file_id` needs is present: for content that
// cannot be opened (a locked share). Results as VerifyContent.
int CheckPieces(FileTable& table, const std::string& folder, uint64_t file_id,
                std::string& problem);

}  // namespace filestore

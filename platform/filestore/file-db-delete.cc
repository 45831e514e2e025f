// Alone in its object so that a database library defining the same
// deleter wins without a clash.
#include "db/file-manager.h"

namespace db {

void FileDBDelete(FileManager* files) { delete files; }

}  // namespace db

// A file or a symlink: staged in the working folder, given its owner, mode,
// ACL, time and Mac attributes while still out of sight, then made to
// appear at the target by one rename.
#pragma once

#include "restore-item.h"

namespace tidepool::restore {

class RegularItem : public Item {
 public:
  using Item::Item;
  ~RegularItem() override = default;

 protected:
  int PrepareImpl(const std::string& work_dir, const Target& target, const TaskActor& actor,
                  int flags) override;
  int VersionCheck() override;
};

}  // namespace tidepool::restore

#include "utils.h"

#include "restore-item.h"

namespace tidepool::restore {

void TaskDescToItemList(View& view, const std::vector<TaskDesc>& descs,
                        const DecryptMap& decrypt_map, HVOS::Task* task, ItemList& out) {
  NameCount names;
  for (const TaskDesc& desc : descs) {
    const std::string name = Item::CalcAppendedName(desc.name, names);
    out.push_back(Item::ItemFactory(desc.file_type == 1, view, desc.permanent_id, desc.sync_id,
                                    desc.ver_ctime_upper_bound, name, desc.path, decrypt_map,
                                    task));
  }
}

int CountFromItemList(const ItemList& items, bool include_removed, unsigned long long& count) {
  count = 0;
  for (const auto& item : items) {
    if (item->Count(count, include_removed) < 0) {
      RESTORE_ERR("Failed to %s, permanent_id = %llu, sync_id = %llu.", "CountFromItemList",
                  item->GetPermanentId(), item->GetSyncId());
      return -1;
    }
  }
  return 0;
}

int PrepareFromItemList(const ItemList& items, const std::string& work_dir,
                        const std::string& dest_dir, const TaskActor& actor, int flags) {
  for (const auto& item : items) {
    const int rc = item->Prepare(work_dir, dest_dir, actor, flags);
    if (rc < 0) {
      RESTORE_ERR("Failed to %s, permanent_id = %llu, sync_id = %llu. rc = %d",
                  "PrepareFromItemList", item->GetPermanentId(), item->GetSyncId(), rc);
      return rc;
    }
  }
  return 0;
}

}  // namespace tidepool::restore

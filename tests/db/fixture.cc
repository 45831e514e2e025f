#include "fixture.h"

#include <gtest/gtest.h>

namespace dbtest {

void OpenDatabases(const std::string& connect) {
  if (!db::Manager::IsInitialized()) {
    ASSERT_EQ(db::Manager::Initialize(connect, connect, "sqlite"), 0);
  }
}

Tree::Tree(std::initializer_list<Step> steps, uint64_t view_id, const std::string& connect)
    : view_id_(view_id) {
  OpenDatabases(connect);
  EXPECT_EQ(db::Manager::CreateView(view_id), 0);
  EXPECT_EQ(db::Manager::GetViewWriter(view_id, writer_), 0);
  if (!writer_) return;
  writer_->Begin();
  Apply(steps);
  writer_->Commit();
}

void Tree::Apply(std::initializer_list<Step> steps) {
  for (const auto& step : steps) Apply(step);
}

void Tree::Apply(const Step& step) {
  ASSERT_TRUE(writer_);
  const bool folder = !step.path.empty() && step.path.back() == '/';
  int rc = 0;
  if (step.op == Add || step.op == Modify) {
    db::NewVersion v;
    v.path = step.path;
    v.file_type = folder ? db::kFileTypeDir : db::kFileTypeFile;
    v.size = step.size;
    v.ctime = step.time;
    v.mtime = step.mtime ? step.mtime : step.time;
    v.uid = 1026;
    v.mode = folder ? 040755 : 0100644;
    v.client_id = "test-client";
    if (!folder) {
      v.hash = "hash-" + std::to_string(next_file_id_);
      v.file_id = next_file_id_++;
      v.file_uuid = "test-volume";
    } else {
      v.ver_type = db::kVerTypeLive;
    }
    db::Node out;
    rc = writer_->AddVersion(v, out);
  } else if (step.op == Remove) {
    rc = writer_->RemoveNode(Id(step.path), step.time, "test-client");
  } else {
    rc = writer_->MoveNode(Id(step.path), step.to, step.time, "test-client");
  }
  EXPECT_GE(rc, 0) << "step at " << step.time << " on " << step.path << ": " << db::GetErrMsg(rc);
}

db::Node Tree::Node(const std::string& path) {
  db::Node node;
  EXPECT_EQ(View().QueryNode(path, node, db::ViewManager::kQueryAny), 0) << "no node " << path;
  return node;
}

}  // namespace dbtest

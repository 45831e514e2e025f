#include "purge-job.h"

#include "db/errors.h"
#include "db/log-manager.h"
#include "db/manager.h"
#include "job-store.h"
#include "logger.h"
#include "purge.h"
#include "sync-service.h"

namespace driftway {
namespace {

std::string connect_param;

}  // namespace

int OpenPurgeDatabases(const SyncConfigMgr& config) {
  const std::string repo = config.GetSystemRepoLocation();
  connect_param = config.GetDbConnectParam();
  const std::string backend = config.GetDBBackendString();
  int rc = db::Manager::Initialize(repo, connect_param, backend);
  if (rc >= 0) rc = db::LogManager::Initialize(repo, connect_param, backend, false);
  if (rc < 0) LOG_ERROR("purges cannot open the sync databases (%d)\n", rc);
  return rc;
}

void ClosePurgeDatabases() {
  db::LogManager::Destroy();
  db::Manager::Destroy();
}

JobOutcome RunDeleteNodeJob(const tidepool::core::job_queue::JobRecord& job, std::string& error) {
  purge::Request request;
  if (!purge::ParsePayload(job.payload, request)) {
    error = "unreadable payload";
    return JobOutcome::kDrop;
  }
  if (!db::Manager::IsInitialized()) {
    error = "the sync databases are not open";
    return JobOutcome::kRetry;
  }
  request.user = job.user;
  request.uid = job.uid;
  purge::Summary summary;
  const int rc = purge::Run(connect_param, request, summary);
  if (rc == db::kErrNotFound) {
    // A node or view that is not there (any more, or never was) is nothing
    // to do; another try would find the same.
    LOG_WARNING("purge job %lld: nothing to purge for %s\n", static_cast<long long>(job.id),
                job.payload.c_str());
    return JobOutcome::kDrop;
  }
  if (rc < 0) {
    error = std::string("purge failed: ") + db::GetErrMsg(rc);
    return JobOutcome::kRetry;
  }
  LOG_INFO("purge job %lld: %u nodes of %u views, %u pieces removed\n",
           static_cast<long long>(job.id), summary.nodes, summary.views, summary.pieces);
  return JobOutcome::kDone;
}

}  // namespace driftway

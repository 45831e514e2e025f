// The runner of "cleanup.delete-node-job": purges what the payload names
// ({} every view's removed nodes, {"view_id"} one view's, {"node_id",
// "view_id"} one node with its subtree) in the name of the job's user.
#pragma once

#include <string>

#include "job-worker.h"

class SyncConfigMgr;

namespace driftway {

// Opens the sync and log databases the purge needs, for the worker's
// thread alone; 0 or negative.
int OpenPurgeDatabases(const SyncConfigMgr& config);
void ClosePurgeDatabases();

JobOutcome RunDeleteNodeJob(const tidepool::core::job_queue::JobRecord& job, std::string& error);

}  // namespace driftway

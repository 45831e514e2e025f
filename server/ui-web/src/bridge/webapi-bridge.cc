#include "webapi-bridge.h"

#include <json/writer.h>
#include <kstx/webapi.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "fs-beneath.h"
#include "job-queue.h"
#include "logger.h"
#include "request-handler.h"
#include "run-as.h"
#include "webapi-request.h"

WebAPIBridge::WebAPIBridge(KSTX::APIRequest* request, KSTX::APIResponse* response)
    : api_request(request),
      api_response(response),
      authentication_service(std::make_unique<WebAPIAuthenticationService>(request, response)) {}

WebAPIBridge::~WebAPIBridge() {
  // Temporary files go after the answer has been written.
  HandleAutoRemove();
  DestroyJobDB();
}

void WebAPIBridge::AddHandler(RequestHandler* handler) {
  handler->SetAuthenticationService(authentication_service.get());
  handlers[handler->GetAPI()][handler->GetVersionMax()].reset(handler);
}

RequestHandler* WebAPIBridge::FindHandler() const {
  return FindHandler(api_request->GetAPIClass(), api_request->GetAPIMethod(),
                     api_request->GetAPIVersion());
}

RequestHandler* WebAPIBridge::FindHandler(const std::string& api_class, const std::string& method,
                                          unsigned version) const {
  const std::string key = api_class + "." + method;
  auto found = handlers.find(key);
  if (found == handlers.end()) {
    LOG_ERROR("no such api : %s.\n", key.c_str());
    return nullptr;
  }
  // A zero in either bound serves every version.
  for (const auto& [version_max, handler] : found->second) {
    const unsigned version_min = handler->GetVersionMin();
    if (version_max == 0 || version_min == 0 ||
        (version_min <= version && version <= version_max)) {
      return handler.get();
    }
  }
  LOG_ERROR("no matched version(%u) for api(%s).\n", version, key.c_str());
  return nullptr;
}

bool WebAPIBridge::HasHandler(const std::string& api_class, const std::string& method,
                              int version) const {
  return FindHandler(api_class, method, static_cast<unsigned>(version)) != nullptr;
}

int WebAPIBridge::Process() {
  int result = -1;
  {
    WebAPIRequest request(api_request);
    BridgeResponse response;
    RequestHandler* handler = FindHandler();
    if (handler == nullptr) {
      LOG_ERROR("Fail to find handler\n");
      response.SetError(103, "no such API or method", __LINE__);
    } else {
      result = handler->HandleRequest(request, response) < 0 ? -1 : 0;
    }
    SetResponse(response);
  }
  return result;
}

void WebAPIBridge::SetResponse(const BridgeResponse& response) {
  switch (response.GetType()) {
    case BridgeResponse::kJson:
      for (const auto& [name, value] : response.GetHeaders()) api_response->SetHeader(name, value);
      if (!response.IsErrorSet()) {
        api_response->SetSuccess(response.GetJsonObject());
      } else {
        Json::Value errors(Json::objectValue);
        errors["message"] = response.GetErrorMessage();
        errors["line"] = response.GetErrorLine();
        api_response->SetError(response.GetErrorCode(), errors);
      }
      break;
    case BridgeResponse::kFile:
    case BridgeResponse::kArchive:
      // From here on only this module writes the answer.
      api_response->SetEnableOutput(false);
      for (const auto& [name, value] : response.GetHeaders()) {
        printf("%s: %s\r\n", name.c_str(), value.c_str());
      }
      if (response.IsErrorSet()) {
        WriteDownloadError(response);
      } else if (response.GetType() == BridgeResponse::kFile) {
        // Headers may be out already: a failure can only be logged.
        (void)SendFile(response.GetFileName(), response.GetFilePath(), response.IsForceDownload());
      } else {
        (void)SendArchive(response.GetArchiveName(), response.GetArchivePath(),
                          ArchiveCodepage(response));
      }
      fflush(stdout);
      break;
  }
  for (const auto& path : response.GetAutoRemovePaths()) auto_remove_paths.push_back(path);
}

void WebAPIBridge::HandleAutoRemove() {
  using tidepool::core::job_queue::JobQueueClient;
  for (const auto& path : auto_remove_paths) {
    IF_RUN_AS(0, 0) {
      // The daemon's worker removes the path a minute from now, when a
      // slow client has surely read it; a queue that cannot take the job
      // leaves the removal to this process, now.
      JobQueueClient client;
      const JobQueueClient::PushOption option{0, 60, 0};
      if (client.PushJob(std::make_shared<tidepool::core::job_queue::jobs::UnlinkJob>(path),
                         option) != 0 &&
          fsb::RemovePathNoSymlinks(path) < 0 && errno != ENOENT) {
        LOG_ERROR("cannot remove %s: %s\n", path.c_str(), strerror(errno));
      }
    }
    else {
      LOG_ERROR("Failed to get privilege.\n");
    }
  }
}

void WebAPIBridge::DestroyJobDB() { tidepool::db::job::JobManagerHolder::Instance().Destroy(); }

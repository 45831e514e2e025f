// KSTX.Tidepool.Config: only set has parameters, all of them required.
#include "check-functions.h"
#include "param-reader.h"

namespace tidepool::schema {

bool CheckConfigSet(KSTX::APIRequest* request, KSTX::APIResponse* response) {
  ParamReader in(*request);
  in.Required<std::string>("db_volume");
  in.Required<bool>("use_del_by_cnt");
  in.Required<int>("del_cnt");
  in.Required<bool>("use_del_by_span");
  in.Required<int>("del_span");
  return !in.RejectInvalid(response);
}

}  // namespace tidepool::schema

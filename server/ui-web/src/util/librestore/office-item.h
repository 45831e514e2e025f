// An office document (".tdoc", ".tsheet", ".tslides"): its content belongs
// to the office package, which may also keep it password-protected, so it
// is not rebuilt from stored bytes. The office package's web API restores
// or duplicates it inside a synced folder, or exports it in a common format
// to a place outside. On a host without that package the document comes
// back as its stored bytes, as any file.
#pragma once

#include <json/value.h>

#include <string>

#include "regular-item.h"

namespace tidepool::restore {

class OfficeItem : public RegularItem {
 public:
  using RegularItem::RegularItem;
  ~OfficeItem() override = default;

  // The node itself when it is a protected document.
  int ListEncrypted(std::vector<db::Node>& out, bool include_removed) override;

  // One call of the office web API, as an item result: 0, RC_GENERAL,
  // RC_BAD_PASSWORD, RC_DECRYPT_IGNORED, or kOfficeMissing when the API is
  // not installed.
  class OfficeWebAPI {
   public:
    OfficeWebAPI(const std::string& api, const std::string& method, bool ignore_invalid_decrypt)
        : api(api), method(method), ignore_invalid_decrypt(ignore_invalid_decrypt) {}
    std::string InfoStr() const { return api + "::" + method + "()"; }
    int operator()(const Json::Value& params, Json::Value& response, const std::string& user) const;

   private:
    std::string api;
    std::string method;
    bool ignore_invalid_decrypt;
  };

  // Not an item result: the office package is not installed here.
  static constexpr int kOfficeMissing = 1;
  // The error codes of the office web API that mean no password or a wrong one.
  static constexpr int kErrDisabled = 102;
  static constexpr int kErrPasswordNeeded = 57365;
  static constexpr int kErrPasswordRefused = 57373;

  // For tests: forget that an earlier call found no office package.
  static void TEST_ResetOfficeMissing();

 protected:
  int PrepareImpl(const std::string& work_dir, const Target& target, const TaskActor& actor,
                  int flags) override;
  int VersionCheck() override { return version.isFile() ? 0 : -1; }

 private:
  // This document's node as it stood in the item's version.
  int QueryNode(db::Node& node, bool include_removed);
  int QueryDecryptByPermanentId(std::string& password) const;
  // The actor of the office calls: a removed document is duplicated anew,
  // never put back in place as itself.
  TaskActor OfficeActor(const db::Node& node, const TaskActor& actor);
  int Duplicate(const std::string& id_path, const std::string& dest_dir, const TaskActor& actor,
                int flags, const std::string& password);
  int Export(const std::string& id_path, const std::string& work_dir, const Target& target,
             const TaskActor& actor, int flags, const std::string& password);
  // The document as it is stored, as a RegularItem rebuilds it.
  int AsStored(const std::string& work_dir, const Target& target, const TaskActor& actor,
               int flags);
  // Moves the exported file into the working folder and from there onto
  // `final_name` in the target's folder, owned as the actor's copy.
  int PlaceExport(const std::string& export_path, const std::string& work_dir, const Target& target,
                  const std::string& final_name, const TaskActor& actor);
  Json::Value VersionTime() const;
};

}  // namespace tidepool::restore

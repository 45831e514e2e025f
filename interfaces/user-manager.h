// The sync service's user database: the people and shares known to the
// service, each with its default view. It is a process-wide handle opened by
// Initialize and closed by Destroy (the request pipeline does both).
//
// The database is "<connection parameter>/user-db.sqlite" for the "sqlite"
// backend. Results: GetUser gives above 0 found, 0 no such record, negative on
// failure; other calls 0 or more on success, negative on failure.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <utility>
#include <vector>

struct UserInfo {
  std::string name;        // user name, or the share's name for a share user
  uint64_t id = 0;         // record number in the user database
  uint32_t uid = 0;        // the appliance's user number; 0 for a share user
  uint32_t user_type = 0;  // 0 local home, 1 share, 2 LDAP home, 3 domain home
  uint64_t view_id = 0;    // the owner's default view; 0 none
  bool enabled = false;    // enabled in the sync service
  uint32_t attribute = 0;  // bit 1: the account is disabled on the appliance
  bool encrypted = false;  // a share user whose share is encrypted
  std::string root_path;   // "/volume1/homes/<user>/Tidepool" or the share's path

  static constexpr uint32_t kAttrHVOSDisabled = 1;

  bool isEnabled() const { return enabled; }
  bool isHVOSEnabled() const { return (attribute & kAttrHVOSDisabled) == 0; }
  bool isEncryptionShare() const { return encrypted; }
  bool isShareUser() const { return user_type == 1; }
  uint32_t getShareType() const { return user_type; }
};

// A stored profile: a named set of upload filter rules (a JSON object held as
// text) applied to the users assigned to it. The hidden built-in default
// profile holds the users of no other profile; it is never listed.
struct ProfileInfo {
  uint64_t id = 0;
  std::string description;
  std::string name;
  bool hidden = false;
  bool isHidden() const { return hidden; }
};

// What CommitProfiles stores: an id of 0 or less makes a new profile, an
// existing id replaces that profile with its users.
struct ProfileInfoWithUserIds {
  int64_t id = 0;
  std::string description;
  std::string name;
  std::vector<uint64_t> user_ids;  // the appliance's user numbers
};

class UserManager {
 public:
  // 0 reads the record as stored; 3 also refreshes the appliance account's
  // state (the disabled bit of `attribute`) from the host directory.
  enum UserQueryFlag { kQueryStored = 0, kQueryWithAccountState = 3 };

  static int Initialize(const std::string& connect_param, const std::string& backend);
  static void Destroy();
  static bool IsInitialized();

  // Look-ups by name see enabled owners only; the enumerations list disabled
  // ones too, with isEnabled() false. Enabling again keeps the view id.
  // A person by name and number; the number must match when it is not 0.
  static int GetUser(const std::string& name, uint32_t uid, UserInfo& out, int flag);
  static int GetUser(const std::string& name, UserInfo& out, int flag);
  // The share user of a share: 0 or more, with an empty name when the share
  // was never enabled in the service.
  static int GetShareUser(const std::string& share, UserInfo& out);
  static int GetUserByDefaultView(uint64_t view_id, UserInfo& out);
  static int EnumAllUser(std::list<UserInfo>& out);
  // "ASC" or "DESC" orders by name; an empty text keeps the record order.
  static int EnumShareUser(std::list<UserInfo>& out, const std::string& order);
  // Owners of one kind (user_type: 0 local, 1 share, 2 LDAP, 3 domain).
  static int EnumUserByType(uint32_t user_type, std::list<UserInfo>& out);

  // Write side, used by the sync service and its tools. Enabling a known
  // owner again only sets its flag; a new owner gets a new view id.
  static int EnableUser(const std::string& name, uint32_t uid, uint32_t user_type,
                        const std::string& root_path);
  static int DisableUser(const std::string& name);
  static int EnableShare(const std::string& share, const std::string& root_path, bool encrypted);
  static int DisableShare(const std::string& share);

  // Version rotation of a view; view id 0 is the row of all homes. Query:
  // above 0 found, 0 no row (outputs untouched), negative on failure.
  static int InsertRotateSettingTable(uint64_t view_id, int rotate_cnt,
                                      const std::string& rotate_policy, int rotate_days);
  static int QueryRotateSettingTable(uint64_t view_id, int& rotate_cnt, std::string& rotate_policy,
                                     int& rotate_days);

  // Profiles. A user belongs to at most one profile: assigning a user moves
  // them. Users are the appliance's user numbers.
  static int GetAllProfiles(std::vector<ProfileInfo>& out);  // hidden ones too, by id
  // Pairs of user number and profile id, by profile and then in the order
  // they were assigned.
  static int GetUserProfileMap(std::vector<std::pair<unsigned long long, unsigned long long>>& out);
  // Stores `profiles` and deletes `removed` in one transaction: all or
  // nothing. Deleting an unknown id changes nothing; the hidden default
  // profile is never deleted.
  static int CommitProfiles(const std::vector<ProfileInfoWithUserIds>& profiles,
                            const std::vector<unsigned long long>& removed);
};

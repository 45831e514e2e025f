// Records of the service's log and the filter of a search.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <vector>

namespace db {

// Owner kinds of a record's view (also UserInfo's share type).
constexpr uint32_t kShareTypeLocalHome = 0;
constexpr uint32_t kShareTypeShare = 1;
constexpr uint32_t kShareTypeLdapHome = 2;
constexpr uint32_t kShareTypeDomainHome = 3;

class Log {
 public:
  virtual ~Log() = default;

  uint32_t getType() const { return type_; }
  void setType(uint32_t type) { type_ = type; }
  uint32_t getTime() const { return time_; }
  uint32_t getUserId() const { return user_id_; }
  void setUserId(uint32_t uid) { user_id_ = uid; }
  const std::string& getUserName() const { return user_name_; }
  void setUserName(const std::string& name) { user_name_ = name; }
  uint64_t getViewId() const { return view_id_; }
  void setViewId(uint64_t view_id) { view_id_ = view_id; }
  const std::string& getShareName() const { return share_name_; }
  void setShareName(const std::string& name) { share_name_ = name; }
  uint32_t getShareType() const { return share_type_; }
  void setShareType(uint32_t type) { share_type_ = type; }
  uint64_t getTargetViewId() const { return target_view_id_; }
  const std::string& getTargetShareName() const { return target_share_name_; }
  uint32_t getTargetShareType() const { return target_share_type_; }
  const std::vector<std::string>& getPArg() const { return p_args_; }
  const std::vector<std::string>& getSArg() const { return s_args_; }
  // `is_s` picks the list: S for names and paths, P for numbers and flags.
  void pushArg(const std::string& value, bool is_s) { (is_s ? s_args_ : p_args_).push_back(value); }
  void pushArg(unsigned long long value, bool is_s) { pushArg(std::to_string(value), is_s); }
  void clear() { *this = Log(); }

  // Filled by the log database (and by the service's writers).
  void setTime(uint32_t time) { time_ = time; }
  void setTarget(uint64_t view_id, const std::string& share_name, uint32_t share_type) {
    target_view_id_ = view_id;
    target_share_name_ = share_name;
    target_share_type_ = share_type;
  }

 private:
  uint32_t type_ = 0;
  uint32_t time_ = 0;
  uint32_t user_id_ = 0;
  std::string user_name_;
  uint64_t view_id_ = 0;
  std::string share_name_;
  uint32_t share_type_ = 0;
  uint64_t target_view_id_ = 0;
  std::string target_share_name_;
  uint32_t target_share_type_ = 0;
  std::vector<std::string> p_args_;
  std::vector<std::string> s_args_;
};

struct LogFilter {
  // Records this user may see; 0 for no restriction. Otherwise the search
  // keeps the records of user_view_id and the records the user wrote,
  // whatever is_admin says.
  uint32_t user_id = 0;
  bool is_admin = false;
  uint64_t user_view_id = 0;
  std::string keyword;   // literal substring of names and paths, any case; empty for none
  uint64_t view_id = 0;  // 0 for all
  int32_t limit = 0;     // 0 for all; negative is refused
  int32_t offset = 0;    // negative is refused
  int32_t date_from = 0;
  int32_t date_to = 0;
  std::list<int32_t> types;  // empty for all
  bool oldest_first = false;
};

}  // namespace db

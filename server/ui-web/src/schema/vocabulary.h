// The words that the text parameters with a fixed vocabulary accept, as JSON
// array texts for APIValidator::IsBelong. Matching is exact, case included.
#pragma once

namespace tidepool::schema {

inline constexpr char kSortDirections[] = R"(["ASC","DESC"])";

inline constexpr char kNodeSortKeys[] = R"(["mtime","name","ver_cnt","v_file_size","file_type"])";
inline constexpr char kShareSortKeys[] =
    R"(["share_name","share_status","rotate_cnt","rotate_policy"])";
inline constexpr char kConnectionSortKeys[] =
    R"(["client_id","client_name","login_time","client_status","client_type","client_ip",)"
    R"("client_location"])";
inline constexpr char kKeySortKeys[] = R"(["username","key_description"])";

inline constexpr char kLogShareTypes[] = R"(["all","home","share"])";
inline constexpr char kAuthTypes[] = R"(["local","domain","ldap","all"])";

}  // namespace tidepool::schema

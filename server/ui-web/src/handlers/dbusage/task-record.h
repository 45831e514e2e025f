// The database usage task's record, shared by its handlers. One run at a
// time for the whole system, whoever starts it.
#pragma once

inline constexpr const char* kDBUsageTaskOwner = "admin";
inline constexpr const char* kDBUsageTaskName = "dftw_db_usage_polling";

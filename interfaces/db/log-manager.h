// The log database: process-wide, opened by the request pipeline.
#pragma once

#include <string>

namespace db {

class LogManager {
 public:
  // Opens "<connect_param>/log-db.sqlite" for the "sqlite" backend; 0 or negative.
  static int Initialize(const std::string& repo_location, const std::string& connect_param,
                        const std::string& backend, bool read_only);
  static void Destroy();
  static bool IsInitialized();
};

}  // namespace db

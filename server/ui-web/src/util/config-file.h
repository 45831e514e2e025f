// Config: the settings file of the package read as an ordered map of texts,
// with the strict line rules the update client has always used:
//
//   key = value            a value runs to the next white space
//   key = "a value"        or to the closing quote ('single' quotes too)
//   # comment              comments and empty lines are skipped
//
// A line that breaks these rules makes the whole file count as unreadable:
// Read gives -1 and the map is emptied, so a bad line elsewhere in the file
// also loses every good one.
#pragma once

#include <map>
#include <string>

class Config {
 public:
  // 0, or -1 for an empty path, a file that cannot be opened, or a line
  // that does not parse.
  int read(const std::string& path);

  // The value of `key`, or "" when it is missing.
  std::string Get(const std::string& key) const;
  const std::map<std::string, std::string>& values() const { return values_; }

  // With this on, a quoted value keeps its quotes.
  void set_keep_quotes(bool keep) { keep_quotes_ = keep; }

 private:
  bool ParseLine(const char* line);

  std::map<std::string, std::string> values_;
  bool keep_quotes_ = false;
};

// The commands of kstx-admin, as a table: each names its words, how many
// arguments it takes, which options it knows, and the function that runs it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "host-accounts.h"

namespace kstxadmin {

// Exit statuses.
constexpr int kOk = 0;
constexpr int kBadInput = 1;  // unknown user, bad name, missing argument
constexpr int kUsage = 2;     // no such command or option

struct Invocation {
  std::vector<std::string> args;               // positional, after the command words
  std::map<std::string, std::string> options;  // "--uid" -> "1030"; flags map to ""
  hostaccounts::HostAccounts* accounts = nullptr;
};

struct OptionSpec {
  const char* name;  // "--password"
  bool takes_value;
};

struct Command {
  const char* object;  // "user"
  const char* verb;    // "add"
  size_t min_args;
  size_t max_args;
  std::vector<OptionSpec> options;
  const char* synopsis;
  int (*run)(Invocation&);
};

const std::vector<Command>& Commands();

}  // namespace kstxadmin

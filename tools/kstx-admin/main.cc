// kstx-admin OBJECT VERB [ARGS] [OPTIONS] [--db PATH]
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"

namespace {

using kstxadmin::Command;

void PrintUsage(FILE* out) {
  fprintf(out, "usage: kstx-admin [--db PATH] COMMAND\ncommands:\n");
  for (const auto& command : kstxadmin::Commands()) {
    fprintf(out, "  kstx-admin %s %s%s%s\n", command.object, command.verb,
            *command.synopsis ? " " : "", command.synopsis);
  }
}

int UsageError(const std::string& message) {
  fprintf(stderr, "kstx-admin: %s\n", message.c_str());
  PrintUsage(stderr);
  return kstxadmin::kUsage;
}

const Command* FindCommand(const std::string& object, const std::string& verb) {
  for (const auto& command : kstxadmin::Commands()) {
    if (object == command.object && verb == command.verb) return &command;
  }
  return nullptr;
}

const kstxadmin::OptionSpec* FindOption(const Command& command, const std::string& name) {
  for (const auto& option : command.options) {
    if (name == option.name) return &option;
  }
  return nullptr;
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> words;
  std::string db_path = hostaccounts::kDefaultPath;
  std::vector<std::string> rest;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--db") {
      if (i + 1 >= argc) return UsageError("--db needs a path");
      db_path = argv[++i];
    } else if (arg == "-h" || arg == "--help") {
      PrintUsage(stdout);
      return kstxadmin::kOk;
    } else {
      rest.push_back(arg);
    }
  }
  if (rest.size() < 2) return UsageError("missing command");
  const Command* command = FindCommand(rest[0], rest[1]);
  if (command == nullptr) return UsageError("unknown command '" + rest[0] + " " + rest[1] + "'");

  kstxadmin::Invocation invocation;
  for (size_t i = 2; i < rest.size(); ++i) {
    const std::string& arg = rest[i];
    if (arg.size() > 2 && arg.compare(0, 2, "--") == 0) {
      const auto* option = FindOption(*command, arg);
      if (option == nullptr) return UsageError("unknown option " + arg);
      std::string value;
      if (option->takes_value) {
        if (i + 1 >= rest.size()) {
          fprintf(stderr, "kstx-admin: %s needs a value\n", arg.c_str());
          return kstxadmin::kBadInput;
        }
        value = rest[++i];
      }
      invocation.options[arg] = value;
    } else {
      invocation.args.push_back(arg);
    }
  }
  if (invocation.args.size() < command->min_args) {
    fprintf(stderr, "kstx-admin: missing argument\nusage: kstx-admin %s %s %s\n", command->object,
            command->verb, command->synopsis);  // only commands with arguments get here
    return kstxadmin::kBadInput;
  }
  if (invocation.args.size() > command->max_args) {
    return UsageError("too many arguments for '" + std::string(command->object) + " " +
                      command->verb + "'");
  }

  auto accounts = hostaccounts::HostAccounts::Open(db_path);
  if (!accounts) {
    fprintf(stderr, "kstx-admin: cannot open the account directory %s\n", db_path.c_str());
    return kstxadmin::kBadInput;
  }
  invocation.accounts = accounts.get();
  return command->run(invocation);
}

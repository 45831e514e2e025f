// The appliance's small system library: process helpers and key/value files.
#pragma once

#include <cstddef>
#include <cstdio>

// Flags of HLIBCProcForkEx.
constexpr int HLIBC_FORK_SETSID = 0x20;      // the child gets a session of its own
constexpr int HLIBC_FORK_NULL_STDIO = 0x40;  // the child's stdin, stdout, stderr go to /dev/null

// fork(); in the child applies the flags above. The child's number in the
// parent, 0 in the child, negative on failure.
int HLIBCProcForkEx(int flags);
// A child detached from the caller (double fork, own session, stdio on
// /dev/null), so that nobody has to wait for it. 0 in the child, the child's
// number in the parent, negative on failure.
int HLIBCProcForkChildNoWait();

// Run `path` with the arguments that follow (argv[0] is `path`), ended by a
// null pointer. HLIBCExec waits and returns the exit status (negative when the
// program could not be run); HLIBCBackgroundExec starts it detached and
// returns 0 once it runs. Their programs read /dev/null and write their
// standard output there: a request's own standard output is its answer.
int HLIBCExec(const char* path, ...);
int HLIBCBackgroundExec(const char* path, ...);
// A read ("r") or write ("w") stream on the program's standard output or
// input (the other one is /dev/null); null on failure. HLIBCPclose waits and
// returns the exit status.
FILE* HLIBCPopen(const char* path, const char* mode, ...);
int HLIBCPclose(FILE* stream);

// What HLIBCPopenEx adds to HLIBCPopen, for a program whose output is streamed
// elsewhere and that may have to be stopped.
struct HLIBCPopenOptions {
  int dir_fd = -1;              // the program's working folder; -1 keeps the caller's
  int stdout_fd = -1;           // "r" only: the program writes here, and the stream ends at once
  int stderr_fd = -1;           // where its standard error goes; -1 is /dev/null
  char* const* envp = nullptr;  // its environment; null keeps the caller's
  int* pid = nullptr;           // receives its number, so that the caller can kill it
};
// As HLIBCPopen, and the end of the program that is not the stream (stdin for
// "r", stdout for "w") is /dev/null. The program starts with no signal blocked
// and SIGPIPE at its default, whatever the caller's. HLIBCPclose reaps it.
FILE* HLIBCPopenEx(const HLIBCPopenOptions* options, const char* path, const char* mode, ...);

// Reads `key` from a file of key="value" (or key=value) lines into `buffer`.
// The value's length, or -1 when the file or the key is missing.
int HLIBCFileGetKeyValue(const char* path, const char* key, char* buffer, size_t size);
// Writes key="value" into such a file, replacing an existing line; 0 or -1.
int HLIBCFileSetKeyValue(const char* path, const char* key, const char* value);

// Upper-case form of a UTF-8 text; -1 on failure.
int HLIBCUnicodeUTF8StrUpper(const char* text, char* buffer, size_t size);

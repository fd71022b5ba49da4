// Runs a shell command line from a test: its standard output and exit status.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <string>

#include "hsm_fixture.h"

namespace qltest {

struct CommandResult {
  std::string out;     // standard output; standard error goes where the command line sends it
  int exit_code = -1;  // -1 when the command could not start or did not exit normally
};

inline CommandResult RunCommand(const std::string &command) {
  CommandResult r;
  FILE *pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return r;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) r.out.append(buffer, n);
  const int status = pclose(pipe);
  r.exit_code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return r;
}

// The command line of `qlutil` in folder `dir`, connected to `hsm` as master (with `password`,
// or the daemon's), then `args` as given (shell words).
inline std::string QlutilAsMaster(const std::string &qlutil, const std::string &dir,
                                  const HsmProcess &hsm, const std::string &args,
                                  const std::string &password = "") {
  return "cd '" + dir + "' && '" + qlutil + "' -a " + hsm.address() + " --port " +
         std::to_string(hsm.port()) + " -u master -w '" +
         (password.empty() ? hsm.master_password() : password) + "' " + args;
}

}  // namespace qltest

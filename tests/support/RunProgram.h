// Runs a program as a user would, without a shell, and collects its exit
// status and what it printed on standard output and standard error.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace LumoTest {

struct ProgramResult {
  int status = -1;  // exit status; 128 + signal number when killed
  std::string out, err;
};

namespace detail {

inline std::string slurpAndRemove(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  unlink(path.c_str());
  return text.str();
}

}  // namespace detail

inline ProgramResult runProgram(const std::string& program, const std::vector<std::string>& args) {
  char outPath[] = "/tmp/lumo_out_XXXXXX";
  char errPath[] = "/tmp/lumo_err_XXXXXX";
  const int outFd = mkstemp(outPath), errFd = mkstemp(errPath);
  ProgramResult result;
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(outFd, STDOUT_FILENO);
    dup2(errFd, STDERR_FILENO);
    std::vector<char*> argv;
    argv.push_back(const_cast<char*>(program.c_str()));
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  int status = 0;
  if (pid > 0 && waitpid(pid, &status, 0) == pid) {
    result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  close(outFd);
  close(errFd);
  result.out = detail::slurpAndRemove(outPath);
  result.err = detail::slurpAndRemove(errPath);
  return result;
}

}  // namespace LumoTest

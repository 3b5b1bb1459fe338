// Runs a program as a user would, without a shell, and collects its exit
// status and what it printed on standard output and standard error; with
// LUMO_TOOL defined, the command-line program and what its tests read back.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace LumoTest {

struct ProgramResult {
  int status = -1;  // exit status; 128 + signal number when killed
  std::string out, err;
};

inline std::string readText(const std::string& path) {
  std::ostringstream text;
  text << std::ifstream(path, std::ios::binary).rdbuf();
  return text.str();
}

// A file's lines split at commas.
inline std::vector<std::vector<std::string>> readCsv(const std::string& path) {
  std::vector<std::vector<std::string>> rows;
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) {
    rows.emplace_back();
    std::stringstream split(line);
    for (std::string field; std::getline(split, field, ',');) rows.back().push_back(field);
  }
  return rows;
}

// The number printed after `label`; NaN when there is no such label.
inline double numberAfter(const std::string& text, const std::string& label) {
  const std::size_t at = text.find(label);
  return at == std::string::npos ? NAN : std::strtod(text.c_str() + at + label.size(), nullptr);
}

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
  result.out = readText(outPath);
  result.err = readText(errPath);
  unlink(outPath);
  unlink(errPath);
  return result;
}

#ifdef LUMO_TOOL
inline ProgramResult tool(const std::vector<std::string>& args) { return runProgram(LUMO_TOOL, args); }

// DIR/PREFIX00000N.EXT, the program's numbering of frame n (n < 10 here).
inline std::string numbered(const std::string& dir, const std::string& prefix, int n, const std::string& extension) {
  return dir + "/" + prefix + "00000" + std::to_string(n) + extension;
}

// A failure told in one line on standard error that names the program and `mention`.
inline void expectOneLineError(const ProgramResult& r, const std::string& mention) {
  EXPECT_NE(r.status, 0);
  EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << r.err;
  EXPECT_EQ(r.err.rfind("lumetra-depth", 0), 0u) << r.err;
  EXPECT_NE(r.err.find(mention), std::string::npos) << "stderr: " << r.err;
}
#endif

}  // namespace LumoTest

// Running one of the programs of the build as a child process in tool tests:
// its standard output and error captured through files of a scratch
// directory, the environment of the child set first, the exit status read
// back; and the number a shell pipeline prints (for counts made by grep).
//
// Header only; each test executable includes it once. One thread.
#pragma once

#include <fcntl.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

struct ToolRun {
  int status = -1;  // exit status, or -1 for death by a signal
  std::string out, err;
};

inline std::string slurp(const std::string& path) {
  std::ifstream f(path);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

// Runs `program args...` with `env` set in the child; "<scratch>/out" and
// "<scratch>/err" receive its output.
inline ToolRun runTool(const std::string& program, const std::vector<std::string>& args, const std::string& scratch,
                       const std::vector<std::pair<std::string, std::string>>& env) {
  std::string outPath = scratch + "/out", errPath = scratch + "/err";
  pid_t pid = fork();
  if (pid == 0) {
    int o = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    int e = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    dup2(o, 1);
    dup2(e, 2);
    for (const auto& [name, value] : env) setenv(name.c_str(), value.c_str(), 1);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    execv(program.c_str(), argv.data());
    _exit(127);
  }
  int st = 0;
  waitpid(pid, &st, 0);
  ToolRun r;
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  r.out = slurp(outPath);
  r.err = slurp(errPath);
  return r;
}

// The first number a shell command prints, or -1.
inline long shellNumber(const std::string& cmd) {
  FILE* p = popen(cmd.c_str(), "r");
  long n = -1;
  if (p) {
    if (fscanf(p, "%ld", &n) != 1) n = -1;
    pclose(p);
  }
  return n;
}

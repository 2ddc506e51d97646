// Runs a program for a test and collects what it printed.
#ifndef RULENLU_TESTS_SUBPROCESS_H_
#define RULENLU_TESTS_SUBPROCESS_H_

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "test_env.h"

namespace rulenlu {

struct ProcessResult {
  int exit_code = -1;  // -1 when the program did not exit normally
  std::string out;
  std::string err;
};

inline std::string ReadFileBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream content;
  content << in.rdbuf();
  return content.str();
}

// Writes `content` to the file `name` of this program's scratch directory; returns its path.
inline std::string WriteScratch(const std::string& name, const std::string& content) {
  static const std::string dir = MakeTempDir("rulenlu-scratch-");
  const std::string path = dir + "/" + name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

// The lines of `text` without their line ends; an unfinished last line is left out.
inline std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  for (size_t begin = 0, end; (end = text.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    lines.push_back(text.substr(begin, end - begin));
  }
  return lines;
}

// Runs `argv` (argv[0] is the program's path) with `input` on its standard input.
inline ProcessResult RunProcess(const std::vector<std::string>& argv,
                                const std::string& input = "") {
  const std::string dir = MakeTempDir("rulenlu-run-");
  if (dir.empty()) return {};
  const std::string in_path = dir + "/in", out_path = dir + "/out", err_path = dir + "/err";
  std::ofstream(in_path, std::ios::binary) << input;

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, in_path.c_str(), O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  posix_spawn_file_actions_addopen(&actions, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                   0600);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  ProcessResult result;
  pid_t pid = 0;
  if (posix_spawn(&pid, args[0], &actions, nullptr, args.data(), environ) == 0) {
    int status = 0;
    waitpid(pid, &status, 0);
    if (WIFEXITED(status)) result.exit_code = WEXITSTATUS(status);
  }
  posix_spawn_file_actions_destroy(&actions);
  result.out = ReadFileBytes(out_path);
  result.err = ReadFileBytes(err_path);
  for (const std::string& path : {in_path, out_path, err_path}) std::remove(path.c_str());
  rmdir(dir.c_str());
  return result;
}

}  // namespace rulenlu

#endif  // RULENLU_TESTS_SUBPROCESS_H_

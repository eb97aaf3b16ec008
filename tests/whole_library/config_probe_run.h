// Test support for the configuration tests: runs config_probe (a program on the library) in
// a fresh process, with QUORLAMALLOC_CONF set to a path or unset, optionally as the user
// nobody, and returns its exit status, standard output parsed into name=value pairs, and
// standard error as written. Output goes through temporary files, so a probe that writes a
// megabyte of warnings cannot block on a pipe. A probe that does not end within the bound
// is killed and reported as hung.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

namespace config_probe {

struct Result {
  int int_status = -1;  // waitpid status
  bool bool_hung = false;
  std::map<std::string, unsigned long> map_value;
  std::string str_stdout;
  std::string str_stderr;

  bool exited_cleanly() const { return !bool_hung && WIFEXITED(int_status) && WEXITSTATUS(int_status) == 0; }
  unsigned long at(const std::string& name) const {
    auto it = map_value.find(name);
    return it == map_value.end() ? ~0UL : it->second;
  }
  // The lines of standard error, each without its "\r\n" end.
  std::vector<std::string> stderr_lines() const {
    std::vector<std::string> lines;
    size_t begin = 0;
    for (size_t end; (end = str_stderr.find("\r\n", begin)) != std::string::npos; begin = end + 2) {
      lines.push_back(str_stderr.substr(begin, end - begin));
    }
    if (begin < str_stderr.size()) lines.push_back(str_stderr.substr(begin));
    return lines;
  }
  size_t count_in_stderr(const std::string& text) const {
    size_t count = 0;
    for (size_t at = 0; (at = str_stderr.find(text, at)) != std::string::npos; at += text.size()) ++count;
    return count;
  }
};

constexpr const char* k_unset = nullptr;

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// conf: the value of QUORLAMALLOC_CONF, or k_unset. as_nobody: the probe drops to uid and
// gid 65534 before it starts (when this process is root), so that file modes bind it.
inline Result run(const std::vector<std::string>& actions, const char* conf, bool as_nobody = false,
                  unsigned int seconds_bound = 60) {
  Result result;
  char out_path[] = "/tmp/quorla_probe_out_XXXXXX";
  char err_path[] = "/tmp/quorla_probe_err_XXXXXX";
  int out_fd = mkstemp(out_path);
  int err_fd = mkstemp(err_path);
  if (out_fd < 0 || err_fd < 0) return result;
  std::vector<std::string> arguments{QUORLA_CONFIG_PROBE};
  arguments.insert(arguments.end(), actions.begin(), actions.end());
  std::vector<char*> argv;
  for (std::string& argument : arguments) argv.push_back(&argument[0]);
  argv.push_back(nullptr);
  pid_t pid = fork();
  if (pid == 0) {
    dup2(out_fd, 1);
    dup2(err_fd, 2);
    if (conf == k_unset) {
      unsetenv("QUORLAMALLOC_CONF");
    } else {
      setenv("QUORLAMALLOC_CONF", conf, 1);
    }
    if (as_nobody && geteuid() == 0 && (setgid(65534) != 0 || setuid(65534) != 0)) _exit(126);
    execv(argv[0], argv.data());
    _exit(127);
  }
  // Polls the child instead of blocking, so that a probe stuck in an open() ends the test.
  for (unsigned int waited = 0;; ++waited) {
    if (waitpid(pid, &result.int_status, WNOHANG) == pid) break;
    if (waited >= seconds_bound * 100) {
      kill(pid, SIGKILL);
      waitpid(pid, &result.int_status, 0);
      result.bool_hung = true;
      break;
    }
    usleep(10000);
  }
  close(out_fd);
  close(err_fd);
  result.str_stdout = read_file(out_path);
  result.str_stderr = read_file(err_path);
  unlink(out_path);
  unlink(err_path);
  std::istringstream lines(result.str_stdout);
  for (std::string line; std::getline(lines, line);) {
    size_t equal = line.find('=');
    if (equal != std::string::npos) result.map_value[line.substr(0, equal)] = std::stoul(line.substr(equal + 1));
  }
  return result;
}

// The sixteen keys in the order of the file's table, with the value each global holds from
// load until the file is read, and the value of its default text.
struct Setting {
  const char* key;
  unsigned long ulong_initial;
  unsigned long ulong_default;
};
inline const std::vector<Setting>& settings() {
  static const std::vector<Setting> table{
      {"uint_microseconds_thread_background_sleep", 500, 500},
      {"ulong_size_use_thread_background_threshold", 8388608, 8388608},
      {"bool_enable_thread_background", 1, 1},
      {"bool_enable_thread_background_use_page_prefault", 0, 0},
      {"uint_thread_background_div_number_calc_prepare_2m", 8, 8},
      {"uint_thread_background_need_prepare_2m_count_limt", 8, 8},
      {"uint_microseconds_thread_background_force_release_one_2m", 500000, 500000},
      {"uint_vt_thread_local_wait_reuse_limit_size", 16, 16},
      {"uint_wait_microseconds_between_release_2m", 4000, 4000},
      {"bool_enable_numa_memory_bind", 0, 0},
      {"uint_auto_bind_phy_cpu_count", 2, 2},
      {"bool_enable_auto_bind_cpu", 1, 1},
      {"bool_enable_hugepage2m", 1, 1},
      {"bool_enable_page_prefault", 0, 0},
      {"bool_enable_thread_background_clear_cpu_cache", 1, 0},
      {"uint_max_wait_milliseconds_before_clear_cpu_cache", 200, 200},
  };
  return table;
}

// The settings as the model expects them: the defaults (or initial values) with overrides.
inline std::map<std::string, unsigned long> expected(bool read, const std::map<std::string, unsigned long>& overrides = {}) {
  std::map<std::string, unsigned long> model;
  for (const Setting& setting : settings()) model[setting.key] = read ? setting.ulong_default : setting.ulong_initial;
  for (const auto& entry : overrides) model[entry.first] = entry.second;
  return model;
}

inline std::map<std::string, unsigned long> held(const Result& result) {
  std::map<std::string, unsigned long> values;
  for (const Setting& setting : settings()) values[setting.key] = result.at(setting.key);
  return values;
}

}  // namespace config_probe

// Running a small program to its end, with both of its outputs captured, from a small process and
// from one that has touched 2 GiB.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Process.h>
#include <Poco/StreamCopier.h>
#endif
#ifdef PEER_GLIB
#include <glib.h>
#endif

namespace {

using Bench::Workload;

const std::string g_sProgram = "/bin/echo";
const std::string g_sExpected = "hello\n";

// Each returns the output of the program.

std::string ours() { return VarnSupport::VarnCommand({g_sProgram, "hello"}).run().getOutput(); }

std::string readAll(int output, int errors) {
  std::string text;
  std::array<pollfd, 2> polled{{{output, POLLIN, 0}, {errors, POLLIN, 0}}};
  std::array<char, 4096> block{};
  while (polled[0].fd != -1 || polled[1].fd != -1) {
    poll(polled.data(), polled.size(), -1);
    for (pollfd& end : polled) {
      if (end.fd == -1 || end.revents == 0)
        continue;
      const ssize_t count = read(end.fd, block.data(), block.size());
      if (count <= 0)
        close(std::exchange(end.fd, -1));
      else if (end.fd == output)
        text.append(block.data(), static_cast<std::size_t>(count));
    }
  }
  return text;
}

std::string withSpawn() {
  std::array<int, 2> output{};
  std::array<int, 2> errors{};
  if (pipe2(output.data(), O_CLOEXEC) != 0 || pipe2(errors.data(), O_CLOEXEC) != 0)
    return "failed";
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, errors[1], STDERR_FILENO);
  std::string program = g_sProgram;
  std::string argument = "hello";
  const std::array<char*, 3> arguments{program.data(), argument.data(), nullptr};
  pid_t child = 0;
  const int error =
      posix_spawn(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(output[1]);
  close(errors[1]);
  std::string text = readAll(output[0], errors[0]);
  int status = -1;
  return error == 0 && waitpid(child, &status, 0) == child && status == 0 ? text : "failed";
}

#ifdef PEER_POCO
std::string withPoco() {
  Poco::Pipe output;
  Poco::Pipe errors;
  const Poco::ProcessHandle handle =
      Poco::Process::launch(g_sProgram, {"hello"}, nullptr, &output, &errors);
  std::string text;
  std::string trouble;
  Poco::PipeInputStream outputStream(output);
  Poco::PipeInputStream errorStream(errors);
  Poco::StreamCopier::copyToString(outputStream, text);
  Poco::StreamCopier::copyToString(errorStream, trouble);
  return handle.wait() == 0 ? text : "failed";
}
#endif

#ifdef PEER_GLIB
std::string withGLib() {
  std::string program = g_sProgram;
  std::string argument = "hello";
  std::array<char*, 3> arguments{program.data(), argument.data(), nullptr};
  char* output = nullptr;
  char* errors = nullptr;
  if (g_spawn_sync(nullptr, arguments.data(), nullptr, G_SPAWN_DEFAULT, nullptr, nullptr, &output,
                   &errors, nullptr, nullptr) == FALSE)
    return "failed";
  std::string text = output;
  g_free(output);
  g_free(errors);
  return text;
}
#endif

// Pages that have been written to, while it exists.
class Ballast {
 public:
  Ballast()
      : m_pMemory(mmap(nullptr, kBytes, PROT_READ | PROT_WRITE,
                       MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0)) {}
  Ballast(const Ballast&) = delete;
  Ballast& operator=(const Ballast&) = delete;
  ~Ballast() {
    if (isThere())
      munmap(m_pMemory, kBytes);
  }
  bool isThere() const { return m_pMemory != MAP_FAILED; }

 private:
  static constexpr std::size_t kBytes = std::size_t{2} << 30;

  void* const m_pMemory;
};

void add(const std::string& side, std::string (*run)()) {
  Workload("command, run to its end").realTime().side(side, [run](benchmark::State& state) {
    Bench::measure(state, 1, g_sExpected, run);
  });
  Workload("command, run from 2 GiB")
      .realTime()
      .iterations(10)
      .side(side, [run](benchmark::State& state) {
        const Ballast ballast;
        Bench::require(state, ballast.isThere());
        Bench::measure(state, 1, g_sExpected, run);
      });
}

const bool g_bAdded = [] {
  add("ours", ours);
  add("posix_spawn", withSpawn);
#ifdef PEER_POCO
  add("POCO", withPoco);
#endif
#ifdef PEER_GLIB
  add("GLib", withGLib);
#endif
  return true;
}();

}  // namespace

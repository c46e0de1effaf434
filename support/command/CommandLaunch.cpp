// The process is made by posix_spawn(). Its child shares this process's memory until it executes
// the program, and the calling thread waits for that: the cost does not grow with the memory, no
// handler of pthread_atfork() runs, nothing of this process can be found half done, and the error
// of a program that cannot be executed comes back at once, in memory, where a pipe would be one
// more descriptor that children of others can keep open. The platform calls nothing in that child
// but the system. All that can be found out before is: the program in PATH, the folder.
//
// The input is a file without a name: however long it is, nobody has to write while the program
// runs, and a program that does not read it hurts nobody.
#include "command/CommandLaunch.h"

#include <fcntl.h>
#include <paths.h>
#include <spawn.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <csignal>
#include <new>
#include <string_view>
#include <utility>

#include "runtime/Cancellation.h"
#include "runtime/SignalSet.h"
#include "runtime/System.h"
#include "runtime/WithoutWriteSignals.h"

// The header of some releases of the platform does not say it.
extern "C" {
#include <sys/pidfd.h>
}

namespace VarnSupport {

namespace {

#ifndef MFD_NOEXEC_SEAL
constexpr unsigned int MFD_NOEXEC_SEAL = 8;
#endif

// What stops a launch: an error number, and what it is about.
struct Failure {
  int error;
  std::string subject;
};

void requireNone(int error, std::string_view subject) {
  if (error != 0)
    throw Failure{error, std::string(subject)};
}

void require(bool works, std::string_view subject) { requireNone(works ? 0 : errno, subject); }

Descriptor nothing() {
  Descriptor device = Descriptor::open("/dev/null", O_RDWR);
  require(device.isOpen(), "/dev/null");
  return device;
}

Descriptor makeFile() {
  const int number = memfd_create("command-input", MFD_CLOEXEC | MFD_NOEXEC_SEAL);
  return Descriptor(number == -1 && errno == EINVAL ? memfd_create("command-input", MFD_CLOEXEC)
                                                    : number);
}

Descriptor fileOf(const std::string& text) {
  static constexpr std::string_view kSubject = "input";
  Descriptor file = makeFile();
  require(file.isOpen(), kSubject);
  requireNone(writeWhole(file.get(), text), kSubject);
  require(lseek(file.get(), 0, SEEK_SET) == 0, kSubject);
  return file;
}

// Its end to read from is ours, and does not block.
Pipe makePipe() {
  Pipe pipe = Pipe::open();
  require(pipe.isOpen() && fcntl(pipe.reading.get(), F_SETFL, O_NONBLOCK) == 0, "pipe");
  return pipe;
}

// Null-terminated pointers to texts, as the system takes them. The texts must outlive it.
std::vector<char*> pointersTo(std::vector<std::string>& texts) {
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (std::string& text : texts)
    pointers.push_back(text.data());
  pointers.push_back(nullptr);
  return pointers;
}

std::vector<std::string> environmentOf(const CommandSettings& settings) {
  std::vector<std::string> environment;
  for (char** entry = environ; settings.inheritsEnvironment && entry != nullptr && *entry;
       ++entry) {
    const std::string_view text = *entry;
    const std::string name(text.substr(0, text.find('=')));
    if (settings.variables.count(name) == 0)
      environment.emplace_back(text);
  }
  for (const auto& [name, value] : settings.variables) {
    if (name.empty() || name.find('=') != std::string::npos || hasNul(name) ||
        (value && hasNul(*value)))
      throw Failure{EINVAL, "environment"};
    if (value)
      environment.push_back(std::string(name).append(1, '=').append(*value));
  }
  return environment;
}

// The value of PATH, or the platform's where there is none.
std::string pathOf(const std::vector<std::string>& environment) {
  for (const std::string& entry : environment) {
    if (entry.compare(0, 5, "PATH=") == 0)
      return entry.substr(5);
  }
  return _PATH_STDPATH;
}

// The path of a program, by the rules of execvp(), seen from `folder`.
std::string findProgram(const std::string& name, const std::string& path, int folder) {
  if (name.empty())
    throw Failure{ENOENT, name};
  if (name.find('/') != std::string::npos)
    return name;
  int error = ENOENT;
  for (std::size_t begin = 0; begin <= path.size();) {
    const std::size_t end = std::min(path.find(':', begin), path.size());
    std::string candidate = end > begin ? path.substr(begin, end - begin) : ".";
    candidate.append(1, '/').append(name);
    begin = end + 1;
    struct stat file {};
    if (fstatat(folder, candidate.c_str(), &file, 0) != 0) {
      error = errno == EACCES ? EACCES : error;
      continue;
    }
    if (S_ISREG(file.st_mode) && faccessat(folder, candidate.c_str(), X_OK, AT_EACCESS) == 0)
      return candidate;
    error = EACCES;
  }
  throw Failure{error, name};
}

Descriptor openFolder(const std::string& path) {
  if (hasNul(path))
    throw Failure{EINVAL, "folder"};
  Descriptor folder = Descriptor::open(path, O_PATH | O_DIRECTORY);
  require(folder.isOpen() && faccessat(folder.get(), ".", X_OK, AT_EACCESS) == 0, path);
  return folder;
}

// What the platform does in the child, in this order.
class Actions {
 public:
  Actions() {
    check(posix_spawn_file_actions_init(&m_oFiles));
    if (const int error = posix_spawnattr_init(&m_oAttributes); error != 0) {
      posix_spawn_file_actions_destroy(&m_oFiles);
      check(error);
    }
  }
  Actions(const Actions&) = delete;
  Actions& operator=(const Actions&) = delete;
  ~Actions() {
    posix_spawnattr_destroy(&m_oAttributes);
    posix_spawn_file_actions_destroy(&m_oFiles);
  }

  void goTo(const Descriptor& folder) {
    check(posix_spawn_file_actions_addfchdir_np(&m_oFiles, folder.get()));
  }
  // A stream that stands for itself loses its close-on-exec.
  void put(int number, int stream) {
    check(posix_spawn_file_actions_adddup2(&m_oFiles, number, stream));
  }
  // Handlers are forgotten by themselves; a daemon ignores SIGPIPE for its own sake alone.
  void finish() {
    check(posix_spawn_file_actions_addclosefrom_np(&m_oFiles, STDERR_FILENO + 1));
    const sigset_t defaults = signalSet({SIGPIPE});
    check(posix_spawnattr_setsigdefault(&m_oAttributes, &defaults));
    check(posix_spawnattr_setpgroup(&m_oAttributes, 0));
    check(posix_spawnattr_setflags(&m_oAttributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP));
  }

  const posix_spawn_file_actions_t* files() const { return &m_oFiles; }
  const posix_spawnattr_t* attributes() const { return &m_oAttributes; }

 private:
  static void check(int error) { requireNone(error, "process"); }

  posix_spawn_file_actions_t m_oFiles;
  posix_spawnattr_t m_oAttributes;
};

// The program's ends of its streams, which are ours until it has started.
class Streams {
 public:
  explicit Streams(const CommandSettings& settings) {
    if (settings.inheritsInput)
      inherit(STDIN_FILENO);
    else
      m_oKept[STDIN_FILENO] = settings.input.empty() ? nothing() : fileOf(settings.input);
  }

  // Returns the end to read from, if there is one.
  Descriptor setOutput(int stream, VarnCommand::tStream kind) {
    Pipe pipe;
    if (kind == VarnCommand::INHERITED)
      inherit(stream);
    else if (kind == VarnCommand::DROPPED)
      m_oKept[stream] = nothing();
    else if (kind == VarnCommand::CAPTURED)
      pipe = makePipe();
    if (pipe.isOpen())
      m_oKept[stream] = std::move(pipe.writing);
    return std::move(pipe.reading);
  }

  // A stream without an end of its own is the program's standard output, or what it was.
  void addTo(Actions& actions, bool errorsWithOutput) const {
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream) {
      if (m_oKept[stream].isOpen())
        actions.put(m_oKept[stream].get(), stream);
      else
        actions.put(stream == STDERR_FILENO && errorsWithOutput ? STDOUT_FILENO : stream, stream);
    }
  }

 private:
  // A stream that the caller has closed would be the first file that the program opens.
  void inherit(int stream) {
    if (fcntl(stream, F_GETFD) == -1)
      m_oKept[stream] = nothing();
  }

  Descriptor m_oKept[STDERR_FILENO + 1];
};

LaunchedProgram tryToLaunch(const CommandSettings& settings) {
  LaunchedProgram program;
  std::vector<std::string> arguments = settings.arguments;
  if (arguments.empty() || std::any_of(arguments.begin(), arguments.end(), hasNul))
    throw Failure{EINVAL, "arguments"};
  std::vector<std::string> environment = environmentOf(settings);
  Actions actions;
  Descriptor folder;
  if (settings.folder) {
    folder = openFolder(*settings.folder);
    actions.goTo(folder);
  }
  const std::string path = findProgram(arguments.front(), pathOf(environment),
                                       folder.isOpen() ? folder.get() : AT_FDCWD);
  Streams streams(settings);
  program.output = streams.setOutput(STDOUT_FILENO, settings.output.kind);
  program.errors = streams.setOutput(STDERR_FILENO, settings.errors.kind);
  streams.addTo(actions, settings.errors.kind == VarnCommand::WITH_OUTPUT);
  actions.finish();
  const std::vector<char*> argumentPointers = pointersTo(arguments);
  const std::vector<char*> environmentPointers = pointersTo(environment);
  requireNone(posix_spawn(&program.process, path.c_str(), actions.files(), actions.attributes(),
                          argumentPointers.data(), environmentPointers.data()),
              path);
  program.handle = Descriptor(pidfd_open(program.process, 0));
  return program;
}

}  // namespace

LaunchedProgram launchProgram(const CommandSettings& settings) noexcept {
  assert(NoCancellation::isInForce());
  LaunchedProgram failed;
  try {
    return tryToLaunch(settings);
  } catch (Failure& failure) {
    failed.error = failure.error;
    failed.subject = std::move(failure.subject);
  } catch (const std::bad_alloc&) {
    failed.error = ENOMEM;
    failed.subject = "memory";
  }
  return failed;
}

}  // namespace VarnSupport

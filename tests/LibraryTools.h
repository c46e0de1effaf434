// What tests of several families share: observers, threads that run a function, and a log that can
// be read back.
#ifndef TESTS_LIBRARYTOOLS_H
#define TESTS_LIBRARYTOOLS_H

#include <pthread.h>

#include "TestTools.h"
#include "VarnSupport/VarnSupport.h"

// Does what the case wants, then counts the call.
class Observer : public VarnDependent {
 public:
  Observer() = default;
  template <typename Source>
  explicit Observer(Source& source) {
    source.addDependent(*this);
  }
  template <typename Source, typename Action>
  Observer(Source& source, Action action) : Observer(source) {
    if constexpr (std::is_invocable_v<Action&>)
      m_oAction = [action](const auto&...) mutable { action(); };
    else
      m_oAction = std::move(action);
  }
  void handleNotification(VarnCollaborator& source, const VarnNotification& notification) override {
    if (m_oAction)
      m_oAction(source, notification);
    ++calls;
  }

  std::atomic<int> calls{0};

 private:
  std::function<void(VarnCollaborator&, const VarnNotification&)> m_oAction;
};

// Runs a function on a thread; the derived part outlives the body.
class Task : public VarnThread {
 public:
  template <typename Body>
  explicit Task(Body body, const std::string& name = "task")
      : VarnThread(name), m_oBody([body]() mutable { return codeOf(body); }) {}
  ~Task() override { waitForThreadExit(); }
  int run() override { return m_oBody(); }

 private:
  std::function<int()> m_oBody;
};

// A service whose hooks are the case's.
class HookedService : public VarnService {
 public:
  HookedService() : VarnService("1", "named", "3", "4", true) {}

  std::function<bool()> startHook = [] { return true; };
  std::function<void()> stopHook = [] {};
  std::string arguments;

 protected:
  bool onStart(const std::string& given) override {
    arguments = given;
    return startHook();
  }
  void onStop() override { stopHook(); }
};

// Kills a thread and looks at what it ended with.
inline void killAndJoin(VarnThread& thread) {
  const pthread_t identifier = *static_cast<pthread_t*>(thread.getHandle());
  thread.kill();
  void* result = nullptr;
  EXPECT_EQ(0, pthread_join(identifier, &result));
  EXPECT_EQ(PTHREAD_CANCELED, result);
}

// Runs `body` on a thread that can be killed, and that sleeps there when this returns.
template <typename Body>
std::unique_ptr<Task> startTask(Body body) {
  auto id = std::make_shared<std::atomic<pid_t>>(0);
  auto task = std::make_unique<Task>([=] {
    *id = gettid();
    return codeOf(body);
  });
  task->start();
  EXPECT_TRUE(eventually([&] { return *id != 0 && isAsleep(*id); }));
  return task;
}

// Whether no ended thread is left to be joined.
inline bool areAllReaped() {
  const VarnCriticalSection guard(g_exitThreadLock, true);
  return g_vExitThreads.empty();
}

// The texts of records, behind their headers.
inline Lines textsOf(const std::string& file) {
  Lines texts = linesOf(file);
  for (std::string& line : texts) {
    const std::size_t header = line.find("] ");
    line.erase(0, header == std::string::npos ? 0 : header + 2);
  }
  return texts;
}

// A registered log that writes to a file of its own.
class FileLog {
 public:
  explicit FileLog(int level) : m_oLog(m_oFolder / "test", VarnLogging::kToFile, level) {
    VarnLogging::setInstance(m_oLog);
  }

  VarnLogging& log() { return m_oLog; }

  std::string file() const {
    for (const auto& entry : fs::directory_iterator(m_oFolder.path()))
      return entry.path().string();
    return "";
  }
  Lines lines() const { return linesOf(file()); }
  Lines texts() const { return textsOf(file()); }

 private:
  TempFolder m_oFolder;
  VarnLogging m_oLog;
};

#endif

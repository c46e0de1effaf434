// A log record of about 80 bytes, formatted with date, level, component and thread, and flushed to
// a file; and a record whose level is not admitted.
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <functional>
#include <mutex>
#include <set>

#include "Workload.h"

#ifdef PEER_SPDLOG
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#endif
#ifdef PEER_LOG4CPLUS
#include <log4cplus/fileappender.h>
#include <log4cplus/initializer.h>
#include <log4cplus/layout.h>
#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#endif
#ifdef PEER_GLOG
#include <glog/logging.h>
#endif
#ifdef PEER_POCO
#define POCO_LOG_DEBUG 1  // else its trace macro is empty in a release
#include <Poco/FileChannel.h>
#include <Poco/FormattingChannel.h>
#include <Poco/Logger.h>
#include <Poco/PatternFormatter.h>
#endif

namespace {

using Bench::Workload;
using VarnSupport::VarnLogFile;
using VarnSupport::VarnLogging;
using VarnSupport::VarnLogRecord;

const Bench::TemporaryFolder g_oFolder;

// Whether a file whose name begins with `side` has the record near its end. In front of it may be
// what the library has told of other workloads.
bool hasRecord(const std::string& side) {
  for (const auto& entry : std::filesystem::directory_iterator(g_oFolder.path())) {
    std::string end(4096, '\0');
    std::ifstream file(entry.path());
    file.seekg(-static_cast<std::streamoff>(std::min(entry.file_size(), end.size())),
               std::ios::end);
    file.read(end.data(), static_cast<std::streamsize>(end.size()));
    if (entry.path().filename().string().rfind(side, 0) == 0 &&
        end.find("run: started 42 jobs") != std::string::npos)
      return true;
  }
  return false;
}

// Writes one record of a side, the first time that the side is measured.
bool works(const std::string& side, const std::function<void(int)>& writeRecord) {
  static std::mutex mutex;
  static std::set<std::string> checked;
  const std::lock_guard hold(mutex);
  if (!checked.insert(side).second)
    return true;
  writeRecord(42);
  return hasRecord(side);
}

void addRecord(const std::string& side, const std::function<void(int)>& writeRecord) {
  const auto body = [side, writeRecord](benchmark::State& state) {
    Bench::require(state, works(side, writeRecord));
    int count = 0;
    for (auto _ : state)
      writeRecord(++count);
  };
  const auto tail = [side, writeRecord](benchmark::State& state) {
    Bench::require(state, works(side, writeRecord));
    int count = 0;
    Bench::measureTail(state, [&] { writeRecord(++count); });
  };
  Workload("log, record by 1 thread").alsoInVarnThread().side(side, body);
  for (const int threads : {2, 4, 8}) {
    Workload("log, record by " + std::to_string(threads) + " threads")
        .threads(threads)
        .alsoInVarnThread()
        .side(side, body);
  }
  Bench::Latencies::workload("log, record by 1 thread").side(side, tail);
  Bench::Latencies::workload("log, record by 2 threads").threads(2).side(side, tail);
}

// What a record costs its caller. The thread writes while the clock stands: `settle` returns when
// it has, and whether nothing was lost.
void addBackground(const std::string& side, const std::function<void(int)>& writeRecord,
                   const std::function<bool()>& settle) {
  const auto body = [side, writeRecord, settle](benchmark::State& state) {
    constexpr int kRecords = 1000;
    for (auto _ : state) {
      for (int i = 0; i < kRecords; ++i)
        writeRecord(42);
      state.PauseTiming();
      Bench::require(state, settle());
      state.ResumeTiming();
    }
    Bench::require(state, hasRecord(side));
    state.SetItemsProcessed(state.iterations() * kRecords);
  };
  Workload("log, record for a thread to write").alsoInVarnThread().side(side, body);
}

// A hundred records per turn, so that the clock's own loop does not count.
template <typename Record>
void addSuppressed(const std::string& side, Record writeRecord) {
  const auto body = [writeRecord](benchmark::State& state) {
    constexpr int kRecords = 100;
    for (auto _ : state) {
      for (int i = 0; i < kRecords; ++i) {
        writeRecord(i);
        benchmark::ClobberMemory();
      }
    }
    state.SetItemsProcessed(state.iterations() * kRecords);
  };
  Workload("log, suppressed record").alsoInVarnThread().side(side, body);
}

void addOurs() {
  static VarnLogging log(g_oFolder / "ours", VarnLogging::kToFile, 5);
  VarnLogging::setInstance(log);
  static const auto write = [](int count) {
    if (VarnLogging::admits(5))
      VarnLogRecord("Worker", 5) << "run: started " << count << " jobs, all of them on time";
  };
  addRecord("ours", write);
  static VarnLogFile background(g_oFolder / "ours, later", 5, VarnLogFile::Background{});
  addBackground(
      "ours",
      [](int count) {
        if (VarnLogging::getInstance() != &background)
          VarnLogging::setInstance(background);
        write(count);
      },
      [] {
        background.flush();
        VarnLogging::setInstance(log);
        return background.lostRecords() == 0;
      });
  addSuppressed("ours, older form", [](int count) {
    if (VarnLogging::isAccessAllowed() && VarnLogging::getInstance()->getLogLevel() >= 9)
      *VarnLogging::getInstance() << VarnSupport::setloglevel("Worker", 9) << "run: started "
                                  << count << VarnSupport::endrecord;
  });
  addSuppressed("ours", [](int count) {
    if (VarnLogging::admits(9))
      VarnLogRecord("Worker", 9) << "run: started " << count << " jobs, all of them on time";
  });
}

void addLimits() {
  static const int file = open((g_oFolder / "limit: write").c_str(), O_CREAT | O_WRONLY, 0600);
  addRecord("limit: write", [](int) {
    static const std::string line =
        "20240131_23:59:59 5 Worker     [123] run: started 42 jobs, all of them on time\n";
    if (write(file, line.data(), line.size()) < 0)
      std::abort();
  });
  static std::atomic<int> level{5};
  addSuppressed("limit: load and compare", [](int count) {
    if (level.load(std::memory_order_relaxed) >= 9)
      std::printf("%d\n", count);
  });
}

void addStandardLibrary() {
  static std::FILE* const file = std::fopen((g_oFolder / "fprintf").c_str(), "w");
  addRecord("fprintf", [](int count) {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    char date[32];
    std::strftime(date, sizeof date, "%Y%m%d_%H:%M:%S", &local);
    std::fprintf(file, "%s %d %-10s [%d] run: started %d jobs, all of them on time\n", date, 5,
                 "Worker", static_cast<int>(pthread_self()), count);
    std::fflush(file);
  });
}

#ifdef PEER_SPDLOG
void addSpdlog() {
  static const auto log = spdlog::basic_logger_mt("Worker", g_oFolder / "spdlog");
  log->set_pattern("%Y%m%d_%H:%M:%S %l %n [%t] %v");
  log->flush_on(spdlog::level::trace);
  addRecord("spdlog",
            [](int count) { log->info("run: started {} jobs, all of them on time", count); });
  static const auto background = spdlog::create_async<spdlog::sinks::basic_file_sink_mt>(
      "Worker ", g_oFolder / "spdlog async");
  background->set_pattern("%Y%m%d_%H:%M:%S %l %n [%t] %v");
  addBackground(
      "spdlog async",
      [](int count) { background->info("run: started {} jobs, all of them on time", count); },
      [] {
        background->flush();
        while (spdlog::thread_pool()->queue_size() > 0)
          usleep(100);
        return true;
      });
  addSuppressed("spdlog",
                [](int count) { log->trace("run: started {} jobs, all of them on time", count); });
}
#endif

#ifdef PEER_LOG4CPLUS
void addLog4cplus() {
  static const log4cplus::Initializer initializer;
  static auto log = log4cplus::Logger::getInstance("Worker");
  const log4cplus::SharedAppenderPtr appender(
      new log4cplus::FileAppender(g_oFolder / "log4cplus", std::ios_base::trunc, true));
  appender->setLayout(
      std::make_unique<log4cplus::PatternLayout>("%D{%Y%m%d_%H:%M:%S} %p %c [%t] %m%n"));
  log.addAppender(appender);
  log.setLogLevel(log4cplus::INFO_LOG_LEVEL);
  addRecord("log4cplus", [](int count) {
    LOG4CPLUS_INFO(log, "run: started " << count << " jobs, all of them on time");
  });
  addSuppressed("log4cplus", [](int count) {
    LOG4CPLUS_TRACE(log, "run: started " << count << " jobs, all of them on time");
  });
}
#endif

#ifdef PEER_GLOG
void addGlog() {
  FLAGS_logbuflevel = -1;
  FLAGS_logtostderr = false;
  google::SetLogDestination(google::GLOG_INFO, (g_oFolder / "glog").c_str());
  google::InitGoogleLogging("Worker");
  addRecord("glog", [](int count) {
    LOG(INFO) << "run: started " << count << " jobs, all of them on time";
  });
  addSuppressed("glog", [](int count) {
    VLOG(9) << "run: started " << count << " jobs, all of them on time";
  });
}
#endif

#ifdef PEER_POCO
void addPoco() {
  Poco::AutoPtr<Poco::FileChannel> file(new Poco::FileChannel(g_oFolder / "POCO"));
  file->setProperty("flush", "true");
  Poco::AutoPtr<Poco::PatternFormatter> formatter(
      new Poco::PatternFormatter("%Y%m%d_%H:%M:%S %l %s [%I] %t"));
  formatter->setProperty("times", "local");
  const Poco::AutoPtr<Poco::Channel> channel(new Poco::FormattingChannel(formatter, file));
  static Poco::Logger& log =
      Poco::Logger::create("Worker", channel, Poco::Message::PRIO_INFORMATION);
  addRecord("POCO", [](int count) {
    poco_information_f1(log, "run: started %d jobs, all of them on time", count);
  });
  addSuppressed("POCO", [](int count) {
    poco_trace_f1(log, "run: started %d jobs, all of them on time", count);
  });
}
#endif

const bool g_bAdded = [] {
  addOurs();
  addLimits();
  addStandardLibrary();
#ifdef PEER_SPDLOG
  addSpdlog();
#endif
#ifdef PEER_LOG4CPLUS
  addLog4cplus();
#endif
#ifdef PEER_GLOG
  addGlog();
#endif
#ifdef PEER_POCO
  addPoco();
#endif
  return true;
}();

}  // namespace

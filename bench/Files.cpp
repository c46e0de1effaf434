// The entries of a folder that match a wildcard: half of them do.
#include <dirent.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <glob.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <vector>

#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/DirectoryIterator.h>
#include <Poco/Glob.h>
#endif
#ifdef PEER_GLIB
#include <glib.h>
#endif

namespace {

using Bench::Workload;

const Bench::TemporaryFolder g_oRoot;

std::string folderOf(int files) {
  std::string folder = g_oRoot / std::to_string(files);
  if (std::filesystem::create_directory(folder)) {
    for (int i = 0; i < files; ++i)
      std::ofstream(folder + "/entry" + std::to_string(i) + (i % 2 == 0 ? ".log" : ".txt"));
  }
  return folder;
}

// Each returns the number of paths that it has listed.

std::size_t ours(const std::string& folder) {
  std::vector<std::string> found;
  for (VarnSupport::VarnFindFile search(folder + "/*.log"); search.hasMore();)
    found.push_back(search.next());
  return found.size();
}

std::size_t withGlob(const std::string& folder) {
  glob_t found{};
  glob((folder + "/*.log").c_str(), GLOB_NOSORT, nullptr, &found);
  const std::size_t count = found.gl_pathc;
  globfree(&found);
  return count;
}

std::size_t withFilesystem(const std::string& folder) {
  std::vector<std::string> found;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    if (fnmatch("*.log", entry.path().filename().c_str(), 0) == 0)
      found.push_back(entry.path().string());
  }
  return found.size();
}

std::size_t withSystemCalls(const std::string& folder) {
  const int descriptor = open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  std::vector<char> block(32768);
  std::size_t count = 0;
  for (;;) {
    const long size = syscall(SYS_getdents64, descriptor, block.data(), block.size());
    if (size <= 0)
      break;
    for (long at = 0; at < size;) {
      const auto* const entry = reinterpret_cast<const dirent64*>(block.data() + at);
      const std::string_view name(entry->d_name);
      count += name.size() > 4 && name.substr(name.size() - 4) == ".log" ? 1 : 0;
      at += entry->d_reclen;
    }
  }
  close(descriptor);
  return count;
}

#ifdef PEER_POCO
std::size_t withPoco(const std::string& folder) {
  Poco::Glob pattern("*.log");
  std::vector<std::string> found;
  const Poco::DirectoryIterator end;
  for (Poco::DirectoryIterator entry(folder); entry != end; ++entry) {
    if (pattern.match(entry.name()))
      found.push_back(entry.path().toString());
  }
  return found.size();
}
#endif

#ifdef PEER_GLIB
std::size_t withGLib(const std::string& folder) {
  GPatternSpec* const pattern = g_pattern_spec_new("*.log");
  GDir* const stream = g_dir_open(folder.c_str(), 0, nullptr);
  std::vector<std::string> found;
  while (const char* const name = g_dir_read_name(stream)) {
    if (g_pattern_spec_match_string(pattern, name) != 0)
      found.push_back(folder + "/" + name);
  }
  g_dir_close(stream);
  g_pattern_spec_free(pattern);
  return found.size();
}
#endif

void add(const std::string& side, std::size_t (*list)(const std::string&)) {
  const auto body = [list](benchmark::State& state, int files) {
    const std::string folder = folderOf(files);
    Bench::measure(state, files, static_cast<std::size_t>(files / 2), [&] { return list(folder); });
  };
  Workload("files, listed by wildcard, per entry").side(side, [body](benchmark::State& state) {
    body(state, 10000);
  });
  for (const int files : {100, 1000, 10000}) {
    Workload("growth of listing, per entry of " + std::to_string(files))
        .side(side, [body, files](benchmark::State& state) { body(state, files); });
  }
}

const bool g_bAdded = [] {
  add("ours", ours);
  add("glob", withGlob);
  add("std", withFilesystem);
  add("limit: getdents", withSystemCalls);
#ifdef PEER_POCO
  add("POCO", withPoco);
#endif
#ifdef PEER_GLIB
  add("GLib", withGLib);
#endif
  return true;
}();

}  // namespace

// Values written to a stream in memory and read back, 100 at a time, and in the growth rows more or
// behind others that wait.
#include <cstring>
#include <deque>
#include <mutex>
#include <sstream>
#include <vector>

#include "Data.h"
#include "Workload.h"

#ifdef PEER_POCO
#include <Poco/BinaryReader.h>
#include <Poco/BinaryWriter.h>
#endif
#ifdef PEER_BOOST
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#endif

namespace {

using Bench::Workload;

constexpr int kValues = 100;

template <typename T>
T valueOf(int number);
template <>
int valueOf<int>(int number) {
  return number + static_cast<int>(Bench::seed());
}
template <>
double valueOf<double>(int number) {
  return number * 0.5;
}
// Short, of 32 characters, or long.
template <>
std::string valueOf<std::string>(int number) {
  const int lengths[] = {8, 32, 200};
  return std::string(static_cast<std::size_t>(Bench::ofShape(lengths)),
                     static_cast<char>('a' + number % 26));
}

// Each side has put(value) and get(value), and begins anew with reset().

class Ours {
 public:
  void reset() { m_oStream.reset(); }
  template <typename T>
  void put(const T& value) {
    m_oStream << value;
  }
  template <typename T>
  void get(T& value) {
    m_oStream >> value;
  }
  // A length is written with 32 bits, but the operator reads 16.
  void get(std::string& value) {
    unsigned int length = 0;
    m_oStream >> length;
    value.resize(length);
    m_oStream.read(value.data(), 1, length);
  }

 private:
  VarnSupport::VarnBufferStream m_oStream;
};

class LockedVector {
 public:
  void reset() {
    m_vBytes.clear();
    m_nRead = 0;
  }
  template <typename T>
  void put(const T& value) {
    putBytes(&value, sizeof value);
  }
  void put(const std::string& value) {
    put(value.size());
    putBytes(value.data(), value.size());
  }
  template <typename T>
  void get(T& value) {
    getBytes(&value, sizeof value);
  }
  void get(std::string& value) {
    std::size_t length = 0;
    get(length);
    value.resize(length);
    getBytes(value.data(), length);
  }

 private:
  void putBytes(const void* data, std::size_t size) {
    const std::lock_guard hold(m_oMutex);
    const auto* const from = static_cast<const unsigned char*>(data);
    m_vBytes.insert(m_vBytes.end(), from, from + size);
  }
  void getBytes(void* data, std::size_t size) {
    const std::lock_guard hold(m_oMutex);
    std::memcpy(data, m_vBytes.data() + m_nRead, size);
    m_nRead += size;
  }

  std::mutex m_oMutex;
  std::vector<unsigned char> m_vBytes;  // guarded by m_oMutex
  std::size_t m_nRead = 0;              // guarded by m_oMutex
};

// Gives back what was read, as the vector and the peers do not.
class LockedDeque {
 public:
  void reset() { m_vBytes.clear(); }
  void put(int value) {
    const std::lock_guard hold(m_oMutex);
    const auto* const from = reinterpret_cast<const unsigned char*>(&value);
    m_vBytes.insert(m_vBytes.end(), from, from + sizeof value);
  }
  void get(int& value) {
    const std::lock_guard hold(m_oMutex);
    const auto end = m_vBytes.begin() + sizeof value;
    std::copy(m_vBytes.begin(), end, reinterpret_cast<unsigned char*>(&value));
    m_vBytes.erase(m_vBytes.begin(), end);
  }

 private:
  std::mutex m_oMutex;
  std::deque<unsigned char> m_vBytes;  // guarded by m_oMutex
};

#ifdef PEER_POCO
class WithPoco {
 public:
  void reset() {
    m_oStream.seekg(0);
    m_oStream.seekp(0);
  }
  template <typename T>
  void put(const T& value) {
    m_oWriter << value;
  }
  template <typename T>
  void get(T& value) {
    m_oReader >> value;
  }

 private:
  std::stringstream m_oStream;
  Poco::BinaryWriter m_oWriter{m_oStream};
  Poco::BinaryReader m_oReader{m_oStream};
};
#endif

#ifdef PEER_BOOST
class WithBoost {
 public:
  void reset() {
    m_oBuffer.pubseekpos(0, std::ios_base::in);
    m_oBuffer.pubseekpos(0, std::ios_base::out);
  }
  template <typename T>
  void put(const T& value) {
    m_oOut << value;
  }
  template <typename T>
  void get(T& value) {
    m_oIn >> value;
  }

 private:
  static constexpr unsigned kFlags = boost::archive::no_header | boost::archive::no_codecvt;

  std::stringbuf m_oBuffer;
  boost::archive::binary_oarchive m_oOut{m_oBuffer, kFlags};
  boost::archive::binary_iarchive m_oIn{m_oBuffer, kFlags};
};
#endif

template <typename Side, typename T>
void putAndGet(benchmark::State& state, int values) {
  Side side;
  const T first = valueOf<T>(0);
  const T last = valueOf<T>(values - 1);
  T value = first;
  Bench::measure(state, values, last, [&] {
    side.reset();
    for (int i = 0; i < values - 1; ++i)
      side.put(first);
    side.put(last);
    for (int i = 0; i < values; ++i)
      side.get(value);
    return value;
  });
}

// An int goes in and one comes out, with `waiting` others between them.
template <typename Side>
void passThrough(benchmark::State& state, int waiting) {
  Side side;
  side.reset();
  for (int i = 0; i < waiting; ++i)
    side.put(i);
  int put = waiting;
  int expected = 0;
  int got = 0;
  bool correct = true;
  for (auto _ : state) {
    side.put(put++);
    side.get(got);
    correct = got == expected++ && correct;
  }
  Bench::require(state, correct);
}

template <typename Side, typename T>
void addType(const std::string& name, const std::string& type) {
  Workload("stream, " + type + " written and read")
      .alsoInVarnThread()
      .side(name, [](benchmark::State& state) { putAndGet<Side, T>(state, kValues); });
}

template <typename Side>
void add(const std::string& name) {
  addType<Side, int>(name, "int");
  addType<Side, double>(name, "double");
  addType<Side, std::string>(name, "text");
  for (const int values : {100, 1000, 10000}) {
    Workload("growth of stream, per int of " + std::to_string(values))
        .side(name, [values](benchmark::State& state) { putAndGet<Side, int>(state, values); });
  }
}

template <typename Side>
void addBacklog(const std::string& name) {
  for (const int waiting : {1000, 10000, 100000}) {
    Workload("growth of stream with a backlog, per int through " + std::to_string(waiting))
        .side(name, [waiting](benchmark::State& state) { passThrough<Side>(state, waiting); });
  }
}

const bool g_bAdded = [] {
  add<Ours>("ours");
  addBacklog<Ours>("ours");
  addBacklog<LockedDeque>("std");
  add<LockedVector>("limit: vector, locked for each value");
#ifdef PEER_POCO
  add<WithPoco>("POCO");
#endif
#ifdef PEER_BOOST
  add<WithBoost>("Boost");
#endif
  return true;
}();

}  // namespace

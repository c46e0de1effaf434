// Values written to a stream in memory and read back, 100 at a time and in the growth rows more.
#include <cstring>
#include <mutex>
#include <sstream>
#include <vector>

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
const std::string g_sText("a text of thirty-two characters.");

template <typename T>
T valueOf(int number);
template <>
int valueOf<int>(int number) {
  return number;
}
template <>
double valueOf<double>(int number) {
  return number * 0.5;
}
template <>
std::string valueOf<std::string>(int) {
  return g_sText;
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

template <typename Side>
void add(const std::string& name) {
  Workload("stream, int written and read").side(name, [](benchmark::State& state) {
    putAndGet<Side, int>(state, kValues);
  });
  Workload("stream, double written and read").side(name, [](benchmark::State& state) {
    putAndGet<Side, double>(state, kValues);
  });
  Workload("stream, text written and read").side(name, [](benchmark::State& state) {
    putAndGet<Side, std::string>(state, kValues);
  });
  for (const int values : {100, 1000, 10000}) {
    Workload("growth of stream, per int of " + std::to_string(values))
        .side(name, [values](benchmark::State& state) { putAndGet<Side, int>(state, values); });
  }
}

const bool g_bAdded = [] {
  add<Ours>("ours");
  add<LockedVector>("limit: locked vector");
#ifdef PEER_POCO
  add<WithPoco>("POCO");
#endif
#ifdef PEER_BOOST
  add<WithBoost>("Boost");
#endif
  return true;
}();

}  // namespace

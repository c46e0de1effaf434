// Fields split, bytes as hexadecimal digits, look-ups that ignore case, narrow and wide text.
#include <strings.h>

#include <cctype>
#include <cstring>
#include <locale>
#include <map>
#include <vector>

#include "Data.h"
#include "Workload.h"

#ifdef PEER_ABSEIL
#include <absl/strings/escaping.h>
#include <absl/strings/str_split.h>
#endif
#ifdef PEER_BOOST
#include <boost/algorithm/hex.hpp>
#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/split.hpp>
#endif

namespace {

using Bench::Workload;
using VarnSupport::VarnStringUtilities;
using Fields = std::vector<std::string>;

const Workload g_oEncode("text, hex of 4 KiB");
const Workload g_oDecode("text, hex to 4 KiB");
const Workload g_oCompare("text, case-insensitive map look-up");
const Workload g_oNarrow("text, narrow 64 characters");
const Workload g_oWiden("text, widen 64 characters");

// Short ones, of any length, or long ones.
Fields fieldsOf(int count) {
  Bench::Draw draw("fields");
  Fields fields;
  for (int i = 0; i < count; ++i) {
    const std::string made[] = {"field" + std::to_string(i), draw.text(1, 30),
                                draw.text(40, 60, "abcdefgh 0123456789")};
    fields.push_back(Bench::ofShape(made));
  }
  return fields;
}

void splitAll(benchmark::State& state, int count, Fields (*split)(const std::string&)) {
  const Fields fields = fieldsOf(count);
  std::string text;
  for (const std::string& field : fields)
    text += (text.empty() ? "" : ",") + field;
  Bench::require(state, split(text) == fields);
  for (auto _ : state)
    benchmark::DoNotOptimize(split(text));
}

// Only makes the texts of the result.
void copyFields(benchmark::State& state, int count) {
  const Fields fields = fieldsOf(count);
  for (auto _ : state)
    benchmark::DoNotOptimize(Fields(fields));
}

void addSplit(const std::string& side, Fields (*split)(const std::string&)) {
  Workload("text, split 100 fields").side(side, [split](benchmark::State& state) {
    splitAll(state, 100, split);
  });
  for (const int count : {100, 1000, 10000}) {
    Workload("growth of split, per field of " + std::to_string(count))
        .side(side, [split, count](benchmark::State& state) {
          splitAll(state, count, split);
          state.SetItemsProcessed(state.iterations() * count);
        });
  }
}

Fields splitOurs(const std::string& text) {
  Fields fields;
  VarnSupport::VarnTokenizer(text, ",", fields);
  return fields;
}

Fields splitStandard(const std::string& text) {
  Fields fields;
  std::string copy(text);
  char* rest = nullptr;
  for (const char* field = strtok_r(copy.data(), ",", &rest); field != nullptr;
       field = strtok_r(nullptr, ",", &rest))
    fields.emplace_back(field);
  return fields;
}

// In no order, mostly zeros, or text.
const std::string& someBytes() {
  static const std::string bytes = [] {
    Bench::Draw draw("bytes");
    std::string made;
    while (made.size() < 4096) {
      const std::size_t byte = draw.below(256);
      const std::size_t drawn[] = {byte, byte < 16 ? byte : 0, ' ' + byte % 95};
      made += static_cast<char>(Bench::ofShape(drawn));
    }
    return made;
  }();
  return bytes;
}

const std::string& someHex() {
  static const std::string hex =
      VarnSupport::VarnBytesToHex(someBytes().data(), static_cast<int>(someBytes().size()));
  return hex;
}

// Capitals or not.
template <typename Encode>
void addEncode(const std::string& side, Encode encode) {
  g_oEncode.side(side, [encode](benchmark::State& state) {
    Bench::require(state, strcasecmp(encode().c_str(), someHex().c_str()) == 0);
    for (auto _ : state)
      benchmark::DoNotOptimize(encode());
  });
}

template <typename Decode>
void addDecode(const std::string& side, Decode decode) {
  g_oDecode.side(side, [decode](benchmark::State& state) {
    std::string bytes(someBytes().size(), '\0');
    decode(bytes);
    Bench::require(state, bytes == someBytes());
    for (auto _ : state) {
      decode(bytes);
      benchmark::ClobberMemory();
    }
  });
}

struct LessByStrcasecmp {
  bool operator()(const std::string& left, const std::string& right) const {
    return strcasecmp(left.c_str(), right.c_str()) < 0;
  }
};

template <typename Map>
void addLookUp(const std::string& side) {
  g_oCompare.side(side, [](benchmark::State& state) {
    constexpr int kKeys = 1000;
    Map map;
    std::vector<typename Map::key_type> wanted;
    Bench::Draw draw("letters");
    for (const auto& [key, value] : Bench::properties(kKeys)) {
      map.emplace(key.c_str(), static_cast<int>(map.size()));
      wanted.push_back(key.c_str());
      for (char& letter : wanted.back()) {
        if (std::isalpha(static_cast<unsigned char>(letter)) != 0 && draw.below(2) == 0)
          letter = static_cast<char>(letter ^ ('a' ^ 'A'));
      }
    }
    Bench::require(state, map.size() == kKeys && map.find(wanted[7])->second == 7);
    draw.shuffle(wanted);
    std::size_t turn = 0;
    for (auto _ : state) {
      turn = turn + 1 == kKeys ? 0 : turn + 1;
      benchmark::DoNotOptimize(map.find(wanted[turn]));
    }
  });
}

void addConversions() {
  static const std::string narrow = Bench::Draw("characters").text(64, 64);
  static const std::wstring wide(narrow.begin(), narrow.end());
  static const std::locale& classic = std::locale::classic();
  const auto add = [](const Workload& workload, const char* side, const auto& expected,
                      auto convert) {
    workload.side(side, [&expected, convert](benchmark::State& state) {
      Bench::require(state, convert() == expected);
      for (auto _ : state)
        benchmark::DoNotOptimize(convert());
    });
  };
  add(g_oNarrow, "ours", narrow, [] { return VarnStringUtilities::narrow(wide, classic); });
  add(g_oWiden, "ours", wide, [] { return VarnStringUtilities::widen(narrow, classic); });
  using Facet = std::ctype<wchar_t>;
  add(g_oNarrow, "std", narrow, [] {
    std::string text(wide.size(), '\0');
    std::use_facet<Facet>(classic).narrow(wide.data(), wide.data() + wide.size(), ' ', text.data());
    return text;
  });
  add(g_oWiden, "std", wide, [] {
    std::wstring text(narrow.size(), L'\0');
    std::use_facet<Facet>(classic).widen(narrow.data(), narrow.data() + narrow.size(), text.data());
    return text;
  });
}

void addOurs() {
  addSplit("ours", splitOurs);
  addEncode("ours", [] {
    return VarnSupport::VarnBytesToHex(someBytes().data(), static_cast<int>(someBytes().size()));
  });
  addDecode("ours",
            [](std::string& bytes) { VarnSupport::VarnHexToBytes(bytes.data(), someHex()); });
  addLookUp<std::map<VarnSupport::ci_string, int>>("ours");
}

const bool g_bAdded = [] {
  addOurs();
  addConversions();
  addSplit("strtok_r", splitStandard);
  Workload("text, split 100 fields").side("limit: its texts made", [](benchmark::State& state) {
    copyFields(state, 100);
  });
  addLookUp<std::map<std::string, int, LessByStrcasecmp>>("strcasecmp");
#ifdef PEER_ABSEIL
  addSplit("Abseil", [](const std::string& text) { return Fields(absl::StrSplit(text, ',')); });
  addEncode("Abseil", [] { return absl::BytesToHexString(someBytes()); });
  addDecode("Abseil", [](std::string& bytes) { bytes = absl::HexStringToBytes(someHex()); });
#endif
#ifdef PEER_BOOST
  addSplit("Boost", [](const std::string& text) {
    Fields fields;
    boost::split(fields, text, boost::is_any_of(","));
    return fields;
  });
  addEncode("Boost", [] { return boost::algorithm::hex(someBytes()); });
  addDecode("Boost", [](std::string& bytes) {
    boost::algorithm::unhex(someHex().begin(), someHex().end(), bytes.begin());
  });
#endif
  return true;
}();

}  // namespace

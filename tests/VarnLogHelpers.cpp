#include "VarnSupport/VarnLogHelpers.h"

#include <complex>
#include <limits>
#include <system_error>

#include "LibraryTools.h"

namespace {

struct Streamed {
  friend std::ostream& operator<<(std::ostream& stream, const Streamed&) {
    VarnLogRecord(5) << "inside";
    return stream << "streamed " << 1.5;
  }
};

// Is converted today, and keeps its text though a stream takes it, too.
struct Both {
  operator std::string() const { return "converted"; }
  friend std::ostream& operator<<(std::ostream& stream, const Both&) {
    return stream << "streamed";
  }
};

struct Thrower {
  friend std::ostream& operator<<(std::ostream& stream, const Thrower&) {
    throw std::runtime_error("no text");
    return stream;
  }
};

struct Big {
  friend std::ostream& operator<<(std::ostream&, const Big&) { throw std::bad_alloc(); }
};

enum Plain { ONE = 1 };

}  // namespace

TEST(VarnLogRecord, TakesWhatAStreamTakes) {
  FileLog log(5);
  const wchar_t* const wide = L"pointer";
  VarnLogRecord(5) << std::string_view("view|x", 5) << std::string_view() << L"wide " << wide
                   << static_cast<const wchar_t*>(nullptr) << std::wstring_view(L"|view", 5)
                   << static_cast<const char*>(nullptr) << nullptr;
  VarnLogRecord(5) << std::numeric_limits<long long>::min() << ' '
                   << std::numeric_limits<unsigned long long>::max() << ' ' << 2.5L;
  VarnLogRecord(5) << 15ms << ' ' << -3s << ' ' << 2us << ' ' << 1ns << ' ' << 4min << ' ' << 5h
                   << ' ' << std::chrono::duration<double>(1.5) << ' '
                   << std::chrono::duration<int, std::ratio<1, 30>>(7);
  VarnLogRecord(5) << std::complex<int>(1, 2) << ' '
                   << std::make_error_code(std::errc::no_such_file_or_directory) << ' '
                   << Streamed();
  VarnLogRecord(5) << static_cast<unsigned char>('a') << ' ' << ONE << ' ' << Both() << ' '
                   << fs::path("/tmp") << ' ' << std::atomic<int>(3);
  EXPECT_THROW(VarnLogRecord(5) << "before " << Thrower(), std::runtime_error);
  EXPECT_THROW(VarnLogRecord(5) << "before " << Big(), std::bad_alloc);
  EXPECT_EQ((Lines{"view|wide pointer(null)|view(null)(null)",
                   "-9223372036854775808 18446744073709551615 2.500000",
                   "15ms -3s 2us 1ns 4min 5h 1.500000s 7[1/30]s", "inside",
                   "(1,2) generic:2 streamed 1.5", "97 1 converted /tmp 3", "before ", "before "}),
            log.texts());
}

TEST(VarnEscaped, LeavesNoLineToControlCharactersAndNoByteThatIsNoText) {
  EXPECT_EQ("plain \xC3\xA9 \xF0\x9F\x98\x80", VarnEscaped("plain \xC3\xA9 \xF0\x9F\x98\x80"));
  EXPECT_EQ("a\\nb\\r\\t\\\\ \\x1b[2J\\x00\\x7f",
            VarnEscaped(std::string_view("a\nb\r\t\\ \x1B[2J\0\x7F", 13)));
  EXPECT_EQ("\\u0085 \\u2028 \\x9b \\xc3( \\xc0\\x80 \\xf4\\x90\\x80\\x80 \\xe2\\x82",
            VarnEscaped("\xC2\x85 \xE2\x80\xA8 \x9B \xC3( \xC0\x80 \xF4\x90\x80\x80 \xE2\x82"));
}

TEST(VarnApplyLogLevels, AComponentMayHaveMoreThanTheOthers) {
  FileLog log(3);
  log.log().setLogLevel("gone", 1);
  std::string error = "before";
  EXPECT_TRUE(VarnApplyLogLevels(" 5, net = 9,db=1", error));
  EXPECT_EQ("", error);
  EXPECT_EQ(9, log.log().getLogLevel());
  EXPECT_EQ(5, log.log().getLogLevel("gone"));
  for (const auto& [component, level, passes] : {std::tuple("", 5, true),
                                                 {"", 6, false},
                                                 {"gone", 5, true},
                                                 {"gone", 6, false},
                                                 {"net", 9, true},
                                                 {"db", 1, true},
                                                 {"db", 2, false},
                                                 {"db", 0, true}}) {
    EXPECT_EQ(passes, VarnLogRecord(component, level)) << component << level;
    log.log() << setloglevel(component, level) << component << level << endrecord;
  }
  EXPECT_EQ((Lines{"5", "gone5", "net9", "db1", "db0"}), log.texts());
  EXPECT_TRUE(VarnApplyLogLevels("net=2", error));
  EXPECT_EQ(5, log.log().getLogLevel());
  EXPECT_EQ(2, log.log().getLogLevel("net"));
  EXPECT_TRUE(VarnApplyLogLevels("1,net=9", error));
  log.log().setLogLevel(4);
  EXPECT_TRUE(VarnLogRecord(4));
}

TEST(VarnApplyLogLevels, FaultsChangeNothingAndAreNamed) {
  std::string error;
  EXPECT_FALSE(VarnApplyLogLevels("5", error));
  EXPECT_EQ("there is no log", error);
  FileLog log(3);
  log.log().setLogLevel("db", 2);
  for (const auto& [levels, reason] : {std::pair("", "\"\": a level is a number from -1 to 9"),
                                       {"5,", "\"\": a level is a number from -1 to 9"},
                                       {"10", "\"10\": a level is a number from -1 to 9"},
                                       {"net=x", "\"net=x\": a level is a number from -1 to 9"},
                                       {"5,net=", "\"net=\": a level is a number from -1 to 9"},
                                       {"=5", "\"=5\": the component has no name"},
                                       {"5,4", "\"4\": there is a level before"},
                                       {"net=1, net=2", "\"net=2\": there is a level before"}}) {
    EXPECT_FALSE(VarnApplyLogLevels(levels, error));
    EXPECT_EQ(reason, error);
    EXPECT_FALSE(VarnCheckLogLevels(levels, error));
    EXPECT_EQ(reason, error);
  }
  EXPECT_TRUE(VarnCheckLogLevels("5,net=9", error));
  EXPECT_EQ(3, log.log().getLogLevel());
  EXPECT_EQ(2, log.log().getLogLevel("db"));
}

TEST(VarnLogLimit, LetsOneRecordOfAFloodPassAndSaysHowManyItHeldBack) {
  FileLog log(5);
  log.log().setLogLevel("disk", 1);
  static VarnLogLimit never(std::chrono::nanoseconds::max());
  static VarnLogLimit soon(50ms);
  for (int i = 0; i < 10; ++i) {
    VarnLimitedLogRecord(never, 6) << "rejected by the level";
    VarnLimitedLogRecord(never, "disk", 5) << "rejected by the component's";
    VarnLimitedLogRecord(never, "net", 5) << "once " << i;
  }
  onThreads(4, [](int) {
    for (int i = 0; i < 100; ++i)
      VarnLimitedLogRecord(soon, 5) << "many";
  });
  sleepMs(60);
  VarnLimitedLogRecord(soon, 5) << "last";
  const Lines texts = log.texts();
  EXPECT_EQ("once 0", texts[0]);
  EXPECT_EQ("many", texts[1]);
  std::size_t sum = texts.size() - 1;  // with what was left out
  for (const std::string& text : texts)
    sum += text.front() == '[' ? std::stoul(text.substr(1)) : 0;
  EXPECT_EQ(401U, sum);
  EXPECT_TRUE(contains(texts.back(), " left out] last"));
}

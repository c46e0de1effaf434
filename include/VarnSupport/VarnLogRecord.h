// Whole records of the registered log.
//
//   VarnLogRecord(5) << "Worker::run: took " << elapsed << " for " << path;
//
// A record is one object, for one statement or scope. Any thread may make records; each object is
// its thread's own. From its beginning to its end all other threads that log wait: nothing in the
// statement may wait itself, or lock what others hold while they log. What the operator of a value
// throws leaves to the caller, and nothing else is thrown. VarnLogging.h includes this header: a
// program needs one of the two.
#ifndef VARNSUPPORT_VARNLOGRECORD_H
#define VARNSUPPORT_VARNLOGRECORD_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <ostream>
#include <ratio>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "VarnSupport/VarnExport.h"
#include "VarnSupport/VarnLogging.h"

namespace VarnSupport {

// Holds the record lock of the registered log from its construction to its destruction, which ends
// the record, provided that the level is admitted by the log and by the component's threshold.
// Otherwise, and when there is no memory, it takes values and does nothing. May stand inside
// another record of its thread. A null character pointer reads "(null)".
class VSUPT_EXPORT VarnLogRecord {
 public:
  explicit VarnLogRecord(int level);
  VarnLogRecord(const std::string& component, int level);
  VarnLogRecord(const VarnLogRecord&) = delete;
  VarnLogRecord& operator=(const VarnLogRecord&) = delete;
  // Ends a record of the older form that was begun inside, too.
  ~VarnLogRecord();

  // True when the level was admitted.
  operator bool() const { return m_pLog != nullptr; }

  // Takes what VarnLogging takes, with the same text, but for wide literals and pointers, which are
  // converted like a std::wstring. Beyond it: views of texts, long long, durations ("15ms"), and
  // whatever a std::ostream takes. A value that needs a stream gets one of its own, in the classic
  // locale; what its operator throws leaves to the caller.
  template <typename T>
  VarnLogRecord& operator<<(const T& value) {
    if (m_pLog != nullptr)
      take(value);
    return *this;
  }

 private:
  friend class VarnLogging;
  struct Content;
  using Writer = void (*)(std::ostream& stream, const void* value);

  void begin(const std::string& component, int level);

  template <typename T>
  static auto isPut(int)
      -> decltype(std::declval<VarnLogging&>().put(std::declval<const T&>()), std::true_type());
  template <typename T>
  static std::false_type isPut(...);
  template <typename T>
  static auto isStreamed(int)
      -> decltype(std::declval<std::ostream&>() << std::declval<const T&>(), std::true_type());
  template <typename T>
  static std::false_type isStreamed(...);

  template <typename T>
  void take(const T& value) {
    if constexpr (std::is_null_pointer_v<T>)
      takeText("(null)");
    else if constexpr (std::is_same_v<std::decay_t<T>, const wchar_t*> ||
                       std::is_same_v<std::decay_t<T>, wchar_t*>)
      takeWide(value);
    else if constexpr (decltype(isPut<T>(0))::value)
      m_pLog->put(value);
    else if constexpr (std::is_convertible_v<const T&, std::string_view>)
      takeText(value);
    else if constexpr (std::is_convertible_v<const T&, std::wstring_view>)
      takeWide(std::wstring_view(value));
    else if constexpr (std::is_same_v<T, long long>)
      takeNumber("%lld", value);
    else if constexpr (std::is_same_v<T, unsigned long long>)
      takeNumber("%llu", value);
    else
      takeStreamed(value);
  }
  template <typename Count, typename Period>
  void take(const std::chrono::duration<Count, Period>& value) {
    using std::is_same_v;
    constexpr const char* unit = is_same_v<Period, std::nano>           ? "ns"
                                 : is_same_v<Period, std::micro>        ? "us"
                                 : is_same_v<Period, std::milli>        ? "ms"
                                 : is_same_v<Period, std::ratio<1>>     ? "s"
                                 : is_same_v<Period, std::ratio<60>>    ? "min"
                                 : is_same_v<Period, std::ratio<3600>>  ? "h"
                                 : is_same_v<Period, std::ratio<86400>> ? "d"
                                                                        : "[%jd/%jd]s";
    take(value.count());
    takeNumber(unit, Period::num, Period::den);
  }
  template <typename T>
  void takeStreamed(const T& value) {
    static_assert(decltype(isStreamed<T>(0))::value,
                  "a record takes what VarnLogging or a std::ostream takes");
    stream(
        [](std::ostream& stream, const void* address) {
          if constexpr (std::is_floating_point_v<T>)
            stream << std::fixed;
          stream << *static_cast<const T*>(address);
        },
        std::addressof(value));
  }
  void stream(Writer writer, const void* value);
  void takeText(std::string_view text) { m_pLog->append(text.data(), text.size()); }
  template <typename... Numbers>
  void takeNumber(const char* format, Numbers... numbers) {
    char text[64];
    const int length = std::snprintf(text, sizeof text, format, numbers...);
    takeText({text, static_cast<std::size_t>(length)});
  }
  void takeWide(const wchar_t* text);
  void takeWide(std::wstring_view text);

  VarnLogging* m_pLog = nullptr;  // what values go through, which is no log of the program
  Content* m_pContent = nullptr;
};

}  // namespace VarnSupport

#endif

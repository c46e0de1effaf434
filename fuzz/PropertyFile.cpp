// A separator and a file, read into all four kinds of sets. What was saved reads back as it was.
#include <sys/mman.h>
#include <unistd.h>

#include <locale>

#include "Input.h"
#include "VarnSupport/VarnProperties.h"

using namespace VarnSupport;

namespace {

// A file in memory.
class File {
 public:
  explicit File(const std::string& contents) {
    require(write(m_nDescriptor, contents.data(), contents.size()) ==
                static_cast<ssize_t>(contents.size()),
            "a file in memory takes its contents");
  }
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  ~File() { close(m_nDescriptor); }

  std::string name() const { return "/proc/self/fd/" + std::to_string(m_nDescriptor); }
  bool isUtf16() const {
    unsigned char mark[2] = {};
    return pread(m_nDescriptor, mark, 2, 0) == 2 && mark[0] == 0xFF && mark[1] == 0xFE;
  }

 private:
  int m_nDescriptor = memfd_create("properties", MFD_CLOEXEC);
};

template <typename StringType>
void load(const std::string& contents, char separator) {
  const bool multiValued = contents.size() % 2 == 0;
  VarnProperties<StringType> properties(multiValued);
  const File source(contents);
  properties.loadProperties(source.name(), static_cast<typename StringType::value_type>(separator));
  for (const auto& [key, values] : properties.getProperties())
    require(!key.empty() && !values.empty(), "a property has a key and a value");
  if (separator != '=')
    return;
  const File saved("");
  properties.saveProperties(saved.name());
  if (saved.isUtf16())
    return;  // a key that begins with the mark; callers rely on no escapes
  VarnProperties<StringType> again(false);
  again.loadProperties(saved.name(), '=');
  require(again.size() == properties.size(), "as many properties come back as were saved");
  for (const auto& [key, values] : properties.getProperties())
    require(again.getProperty(key) == values.front(), "a value comes back as it was saved");
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  std::locale::global(std::locale("C.UTF-8"));
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const auto separator = static_cast<char>(input.byte());
  const std::string contents = input.rest();
  load<std::string>(contents, separator);
  load<std::wstring>(contents, separator);
  load<ci_string>(contents, separator);
  load<ci_wstring>(contents, separator);
  return 0;
}

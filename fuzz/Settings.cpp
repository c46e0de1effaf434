// A property file, read as settings of every type, and updated: whatever is in it, reading ends
// with the values or faults, and what an update has set comes back.
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "Input.h"
#include "VarnSupport/VarnSettings.h"

using namespace VarnSupport;

namespace {

constexpr std::size_t kMostReplaced = 16777216;

const std::string& file() {
  static const std::string name = [] {
    const std::string folder = std::filesystem::exists("/dev/shm") ? "/dev/shm" : "/tmp";
    return folder + "/vsupt-fuzz-" + std::to_string(getpid());
  }();
  return name;
}

void write(const std::string& contents) {
  std::ofstream(file(), std::ios::binary | std::ios::trunc) << contents;
}

std::string contents() {
  std::ifstream stream(file(), std::ios::binary);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// Faults are lines of their own, and begin with where they are.
void checkFaults(const VarnSettings& settings) {
  try {
    settings.finish();
  } catch (const VarnSettingsError& error) {
    require(!error.faults().empty() && error.faults().size() <= 101, "faults are few, and some");
    for (const std::string& fault : error.faults()) {
      require(std::none_of(fault.begin(), fault.end(), [](char c) { return c >= 0 && c < ' '; }),
              "a fault has no control characters");
      require(fault.rfind(file() + ':', 0) == 0 || fault.rfind("and ", 0) == 0,
              "a fault begins with its place");
    }
  }
}

void readAll() {
  VarnSettings settings(file());
  settings.define("d", "<d>");
  for (const std::string& key : settings.keys(""))
    require(settings.has(key), "a key that is listed is there");
  settings.groups("r.");
  require(settings.text("t").size() <= kMostReplaced + 4096, "a text has an end");
  settings.texts("m", 1);
  const int number = settings.number("n", 2, {1, 3});
  require(number >= 1 && number <= 3, "a number is in its range");
  const double real = settings.real("r", {1, 2});
  require(real >= 1 && real <= 2, "a real number is in its range");
  settings.flag("f");
  const auto duration = settings.duration("d");
  require(duration >= std::chrono::milliseconds(0), "a duration is not negative");
  require(settings.bytes("b", VarnNumberRange{5}) >= 5, "a size is in its range");
  settings.oneOf("o", {"x", "y"});
  settings.pattern("p").find("abc", 0);
  const std::string path = settings.path("l", "x");
  require(path.empty() || path.front() == '/', "a path is absolute");
  checkFaults(settings);
}

void update(const std::string& key, const std::string& value) {
  VarnProperties<std::string> set;
  set.addProperty(key, value);
  set.addProperty("n", value);
  const std::string before = contents();
  try {
    VarnUpdatePropertyFile(file(), set);
  } catch (const VarnException&) {
    require(contents() == before, "a refused update changes nothing");
    return;
  }
  VarnProperties<std::string> loaded;
  loaded.loadProperties(file(), '=');
  for (const auto& [name, values] : set.getProperties())
    require(loaded.getPropertyValues(name) == values, "what was set comes back");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const std::string key = input.line();
  const std::string value = input.line();
  const std::string text = input.rest();
  write(text);
  readAll();
  update(key, value);
  const auto look = [&](const std::string& name) {
    return name == key ? std::optional(value) : std::nullopt;
  };
  if (text.find('<') == std::string::npos || key.empty())
    require(VarnReplaceReferences(text, look) == text, "without a reference a text stays");
  std::filesystem::remove(file());
  return 0;
}

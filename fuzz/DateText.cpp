// A field, an amount and a text to read as a date, in a zone with summer time.
#include <ctime>

#include "Input.h"
#include "VarnSupport/VarnDateTime.h"

using namespace VarnSupport;

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  return setenv("TZ", "CET-1CEST,M3.5.0,M10.5.0/3", 1);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  Input input(data, size);
  const auto field = static_cast<VarnDateTime::FieldId_t>(input.byte() % 8);
  const int amount = std::atoi(input.line().c_str());
  const std::string text = input.rest();

  VarnDateTime date;
  std::string error = "untouched";
  const std::time_t before = date.getTime();
  const bool read = date.setDateTimeFromStrImpl(text, error);
  require(read == (error == "untouched"), "a failure has a message, and success has none");
  require(read || date.getTime() == before, "a text that is refused changes nothing");

  const std::time_t unshifted = date.getTime();
  const bool shifted = date.modifyDate(field, amount, error);
  require(shifted || date.getTime() == unshifted, "a shift that is refused changes nothing");
  date.isLeapYear();
  date.toString(std::locale::classic());
  date.toGMTString();
  VarnDateTime::getMonthForRFCName(text);
  for (const unsigned int value : {0u, 31u, 2024u, ~0u}) {
    date.setYearImpl(value, error);
    date.setMonthImpl(value, error);
    date.setDayImpl(value, error);
  }
  return 0;
}

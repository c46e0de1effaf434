#define PCRE2_CODE_UNIT_WIDTH 8
#include <pcre2.h>

#include "Footprint.h"

namespace {

void findPattern(const std::string&) {
  int error = 0;
  PCRE2_SIZE offset = 0;
  pcre2_code* const code = pcre2_compile(reinterpret_cast<PCRE2_SPTR>("[a-z]+9"),
                                         PCRE2_ZERO_TERMINATED, 0, &error, &offset, nullptr);
  pcre2_match_data* const match = pcre2_match_data_create(1, nullptr);
  const std::string text = Footprint::longText();
  Footprint::require(pcre2_match(code, reinterpret_cast<PCRE2_SPTR>(text.data()), text.size(), 0, 0,
                                 match, nullptr) > 0);
  pcre2_match_data_free(match);
  pcre2_code_free(code);
}

}  // namespace

int main(int argc, char** argv) { return Footprint::run(argc, argv, {{"find", findPattern}}); }

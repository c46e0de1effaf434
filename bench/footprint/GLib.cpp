#include <glib.h>

#include "Footprint.h"

namespace {

void loadProperties(const std::string& folder) {
  GKeyFile* const set = g_key_file_new();
  g_key_file_load_from_file(set, Footprint::propertyFile(folder).c_str(), G_KEY_FILE_NONE, nullptr);
  gsize count = 0;
  g_strfreev(g_key_file_get_keys(set, "all", &count, nullptr));
  Footprint::require(count == 100000);
  g_key_file_free(set);
}

}  // namespace

int main(int argc, char** argv) {
  return Footprint::run(argc, argv, {{"properties", loadProperties}});
}

#include "walk.h"

#include <sys/stat.h>

#include <algorithm>

namespace hivekit::cli {

WalkBudget::WalkBudget(const Hive& hive, const std::string& path) {
  // An --unsafe open reads records from anywhere in the file, which may
  // hold more than the base block's hive bins size says.
  uint64_t length = hive.info().hive_bins_size;
  struct stat st;
  if (::stat(path.c_str(), &st) == 0 && st.st_size > 0) length = std::max<uint64_t>(length, st.st_size);
  _maxItems = length / 8 + 4096;
  _maxBytes = 2 * length + (1u << 20);
}

}  // namespace hivekit::cli

// ValueOwner: the key a value belongs to, as the value layer sees it.
//
// A value only needs its key for one thing: a change of its data, name or
// type stamps the key's last write time. Keys (KeyObj) implement this; the
// value layer sits below them and does not know them otherwise.
#pragma once

#include "hive/hive_file.h"

namespace Libraries::Files::Hive {

class ValueOwner : public Key {
 public:
  // Stamps the last write time of the key, on disk too; false when the
  // record could not be written.
  virtual bool touch() = 0;
};

}  // namespace Libraries::Files::Hive

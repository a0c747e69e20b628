// The checks a call of a key or value makes before it does anything.
#pragma once

#include "hive/format/errors.h"
#include "platform/error.h"

namespace Libraries::Files::Hive {

// What the call is about to do.
enum class Entry { read, change };

// Under the hive's lock, in this order: a change needs a writable hive
// (READ_ONLY), every call a valid object (OBJECT_INVALID), and each of
// `arguments` must be given (NULL_ARGUMENT). Sets the error of the first
// that fails; true when all pass.
template <class... Arguments>
bool entryChecks(Entry entry, bool readOnly, bool valid, const Arguments&... arguments) {
  using Platform::Error::setIf;
  return !setIf(entry == Entry::change && readOnly, Errors::READ_ONLY) &&
         !setIf(!valid, Errors::OBJECT_INVALID) &&
         !setIf((false || ... || !arguments), Errors::NULL_ARGUMENT);
}

}  // namespace Libraries::Files::Hive

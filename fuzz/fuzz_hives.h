// Fixed hives the fuzz targets and the seed writer share, made through the
// public API so that they need nothing beyond the library.
#pragma once

#include <vector>

#include "hive/format/format.h"
#include "hive/hive_file.h"
#include "platform/memory_stripe.h"

namespace hivekit::fuzz {

// A small hive, flushed, then marked dirty: primary sequence 2, secondary
// 1. With `spread`, gamma also holds a db value, which spreads over several
// hbins (several times the size, and the cost of a run that
// replays into it). Each is built once per process.
inline std::vector<Platform::u8> makeDirtyHive(bool spread) {
  namespace Hive = Libraries::Files::Hive;
  using Platform::Ref;
  using Platform::String;
  Ref<Platform::MemoryStripe> stripe = Platform::MemoryStripe::create();
  {
    Ref<Hive::HiveFile> hive = Hive::HiveFile::create(stripe, 5, Hive::latin1, {});
    if (!hive) __builtin_trap();
    Ref<Hive::Key> root = hive->root();
    Ref<Hive::Key> a = root->createKey(String::create("alpha"));
    Ref<Hive::Key> b = root->createKey(String::create("beta"));
    Ref<Hive::Key> c = a ? a->createKey(String::create("gamma")) : nullptr;
    if (!a || !b || !c) __builtin_trap();
    if (Ref<Hive::Value> v = a->createValue(String::create("text"), 1)) v->setString(String::create("hello"));
    if (Ref<Hive::Value> v = b->createValue(String::create("n"), 4)) v->setNumber(7);
    Ref<Hive::Value> v = spread ? c->createValue(String::create("big"), 3) : nullptr;
    if (v) {
      Ref<Interfaces::Stripe> data = v->binary();
      std::vector<Platform::u8> bytes(16400, 0x5a);
      data->setElementCount(bytes.size());
      data->writeAt(0, bytes.data(), bytes.size());
    }
    if (!hive->flush()) __builtin_trap();
  }
  std::vector<Platform::u8> bytes = stripe->bytes();
  Platform::W32(bytes.data() + Hive::hive_header::OFS_PRIMARY_SEQ, 2);
  Platform::W32(bytes.data() + Hive::hive_header::OFS_SECONDARY_SEQ, 1);
  Platform::W32(bytes.data() + Hive::hive_header::OFS_CHECKSUM, Hive::calculateHeaderChecksum(bytes.data()));
  return bytes;
}

inline const std::vector<Platform::u8>& dirtyHive(bool spread = false) {
  static const std::vector<Platform::u8> small = makeDirtyHive(false);
  static const std::vector<Platform::u8> large = makeDirtyHive(true);
  return spread ? large : small;
}

}  // namespace hivekit::fuzz

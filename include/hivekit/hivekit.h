// hivekit: read, change and write Windows registry hive files.
//
//   #include <hivekit/hivekit.h>
//
//   auto hive = hivekit::Hive::open("SYSTEM");
//   if (!hive) { std::cerr << hive.status().message() << '\n'; return 1; }
//   for (const hivekit::Key& sub : hive->root().subkeys()) std::cout << sub.name() << '\n';
//
// Everything a user of the library needs is declared by the headers this
// one includes; nothing else of the source tree is part of the interface.
#pragma once

#include "hivekit/deleted.h"
#include "hivekit/diff.h"
#include "hivekit/hive.h"
#include "hivekit/key.h"
#include "hivekit/log.h"
#include "hivekit/regfile.h"
#include "hivekit/sddl.h"
#include "hivekit/search.h"
#include "hivekit/security.h"
#include "hivekit/status.h"
#include "hivekit/types.h"
#include "hivekit/value.h"
#include "hivekit/version.h"

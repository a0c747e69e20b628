// How the engine reports a failure: the error code a client reads with
// Platform::Error::get() after a failed call, and the log channel the
// reason goes to. Every layer of the engine uses both, the log layer too,
// so they sit here beside the on-disk layouts.
#pragma once

#include "platform/log.h"
#include "platform/types.h"

namespace Libraries::Files::Hive {
extern const Platform::Log::Channel hiveLog;  // "Hive"
}  // namespace Libraries::Files::Hive

namespace Libraries::Files::Hive::Errors {
using Platform::u32;

constexpr u32 READ_ONLY = 0x1000;
constexpr u32 OBJECT_INVALID = 0x1001;
constexpr u32 ALLOCATION_FAILED = 0x1002;
constexpr u32 KEY_NOT_FOUND = 0x1003;
constexpr u32 VALUE_NOT_FOUND = 0x1004;
constexpr u32 KEY_EXISTS = 0x1005;
constexpr u32 KEY_NAME_INVALID = 0x1006;
constexpr u32 KEY_LIST_FULL = 0x1007;
constexpr u32 VALUE_EXISTS = 0x1008;
constexpr u32 VALUE_NAME_TOO_LONG = 0x1009;
constexpr u32 MOVE_NAME_TOO_LONG = 0x100A;
constexpr u32 VALUE_NEW_NAME_INVALID = 0x100B;
constexpr u32 MOVE_NAME_EXISTS = 0x100C;
constexpr u32 MOVE_VALUE_EXISTS = 0x100D;
constexpr u32 MOVE_NESTED = 0x100E;
constexpr u32 MOVE_ROOT = 0x100F;
constexpr u32 KEY_NOT_EMPTY = 0x1010;
constexpr u32 WRONG_TYPE = 0x1011;
constexpr u32 DATA_TOO_LONG = 0x1012;
constexpr u32 STRING_ONE_BYTE = 0x1013;
constexpr u32 NUMBER_WRONG_SIZE = 0x1015;
constexpr u32 SHORT_READ = 0x1016;
constexpr u32 SHORT_WRITE = 0x1017;
constexpr u32 NUMBER_TOO_LARGE = 0x1019;
constexpr u32 ROOT_INVALID = 0x2001;
constexpr u32 NOT_NK_RECORD = 0x2004;
constexpr u32 WRITE_IN_SIZE_FIELD = 0x2005;
constexpr u32 MISALIGNED_RECORD = 0x2006;
constexpr u32 BAD_KEY_LIST = 0x2007;
constexpr u32 VALUE_LIST_TOO_SMALL = 0x2008;
constexpr u32 HASH_FAILED = 0x200A;
constexpr u32 BAD_VALUE_RECORD = 0x200C;
constexpr u32 NO_INSERT_POSITION = 0x200D;
constexpr u32 NO_MOVE_POSITION = 0x200E;
// Why an open refused the file.
constexpr u32 BAD_SIGNATURE = 0x2010;        // no "regf": not a hive file
constexpr u32 FILE_TOO_SMALL = 0x2011;       // shorter than its base block says
constexpr u32 UNSUPPORTED_VERSION = 0x2012;  // a major version other than 1
constexpr u32 BAD_CHECKSUM = 0x2013;         // the base block's checksum is wrong
constexpr u32 DIRTY_NO_LOG = 0x2014;         // dirty, and no log applies
constexpr u32 LOG_UNREADABLE = 0x2015;       // dirty, and a log could not be read
constexpr u32 INVALID_FILE = 0x8443;
constexpr u32 NULL_ARGUMENT = 0x8445;
constexpr u32 INVALID_ARGUMENT = 0x8446;
constexpr u32 NOT_SUPPORTED = 0x10002;

}  // namespace Libraries::Files::Hive::Errors

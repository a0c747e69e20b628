// The commands of hivekit, one per cmd_*.cc file.
#pragma once

#include "command.h"

namespace hivekit::cli {

extern const Command INFO_COMMAND;
extern const Command LS_COMMAND;
extern const Command GET_COMMAND;
extern const Command EXPORT_COMMAND;
extern const Command DUMP_COMMAND;
extern const Command SD_COMMAND;
extern const Command RECOVER_COMMAND;
extern const Command NEW_COMMAND;
extern const Command MKKEY_COMMAND;
extern const Command SET_COMMAND;
extern const Command RM_COMMAND;
extern const Command MV_COMMAND;
extern const Command IMPORT_COMMAND;
extern const Command FIND_COMMAND;
extern const Command TIMELINE_COMMAND;
extern const Command DIFF_COMMAND;
extern const Command DELETED_COMMAND;

}  // namespace hivekit::cli

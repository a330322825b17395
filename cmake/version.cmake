# Writes OUTPUT, the source behind sim/tool/version.h. Runs in every build from the source folder,
# and leaves the file alone when nothing in it changes. Without git no commit is shown.
# Usage: cmake -DVERSION=... -DPROTOBUF=... -DOUTPUT=... -P version.cmake
set(git git --no-optional-locks --git-dir=.git)
execute_process(COMMAND ${git} rev-parse --verify --short=12 HEAD
    OUTPUT_VARIABLE commit OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
execute_process(COMMAND ${git} status --porcelain --untracked-files=no
    OUTPUT_VARIABLE changes ERROR_QUIET)
string(REGEX REPLACE ".+" "commit \\0\\\\n" commit "${commit}")
if(changes)
  string(REPLACE "\\n" ", changed\\n" commit "${commit}")
endif()
file(CONFIGURE OUTPUT ${OUTPUT} @ONLY CONTENT [[
#include "sim/tool/version.h"

const char velmar_sim::kVersionText[] =
        "velmar_sim @VERSION@\n@commit@protobuf @PROTOBUF@";
]])

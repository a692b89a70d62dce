# Writes build_info.h: what a program says about itself. Run at every build as
#   cmake -DOUTPUT=... -DSOURCE_DIR=... -DVERSION=... -DBRANCH=... -DPLATFORM=... -DBYTE_ORDER=...
#         -P build_info.cmake
# The file is touched only when something other than the clock has changed, so that an unchanged
# tree does not compile again. With SOURCE_DATE_EPOCH set, equal sources give an equal file.

foreach(name OUTPUT SOURCE_DIR VERSION BRANCH PLATFORM BYTE_ORDER)
  if(NOT DEFINED ${name})
    message(FATAL_ERROR "build_info.cmake: ${name} is not given")
  endif()
endforeach()

# The revision is git's only when this tree is the checkout itself, not a folder inside another.
set(revision "unknown")
find_program(git_program git)
if(git_program)
  execute_process(COMMAND ${git_program} -C ${SOURCE_DIR} rev-parse --show-toplevel
    OUTPUT_VARIABLE top OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET RESULT_VARIABLE failed)
  if(NOT failed)
    file(REAL_PATH "${top}" top)
    file(REAL_PATH "${SOURCE_DIR}" source)
    if(top STREQUAL source)
      execute_process(
        COMMAND ${git_program} -C ${SOURCE_DIR} describe --always --abbrev=12 --exclude=* --dirty=+
        OUTPUT_VARIABLE described OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET
        RESULT_VARIABLE failed)
      if(NOT failed)
        set(revision "${described}")
      endif()
    endif()
  endif()
endif()

string(REGEX MATCH "^[0-9]+" major "${VERSION}")
set(fixed "// Written by cmake/build_info.cmake; do not edit.

#ifndef BUILD_INFO_H
#define BUILD_INFO_H

#define ZDEPL_VERSION \"${VERSION}\"
#define ZDEPL_VERSION_MAJOR ${major}
#define ZDEPL_BRANCH \"${BRANCH}\"
#define ZDEPL_BUILD_REVISION \"${revision}\"
#define ZDEPL_PLATFORM \"${PLATFORM}\"
#define ZDEPL_BYTE_ORDER \"${BYTE_ORDER}\"
")
# TIMESTAMP gives the moment of SOURCE_DATE_EPOCH where that is set.
string(TIMESTAMP date "%Y-%m-%d" UTC)
string(TIMESTAMP time "%H:%M:%S UTC" UTC)
set(contents "${fixed}#define ZDEPL_BUILD_DATE \"${date}\"
#define ZDEPL_BUILD_TIME \"${time}\"

#endif
")

set(present "")
if(EXISTS "${OUTPUT}")
  file(READ "${OUTPUT}" present)
endif()
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  string(COMPARE EQUAL "${present}" "${contents}" current)
else()
  string(FIND "${present}" "${fixed}" at)
  string(COMPARE EQUAL "${at}" "0" current)
endif()
if(NOT current)
  file(WRITE "${OUTPUT}" "${contents}")
endif()

# zdepl_add_routine(NAME [HIDDEN] SOURCE...)
#
# Builds NAME.so, a library of routines for the agent. It links nothing of the agent's: what
# zdextproc.h declares is found in the process that opens the library. With HIDDEN only the
# functions marked EXTPROC_API can be called by the database; else all that are not static.
function(zdepl_add_routine name)
  cmake_parse_arguments(PARSE_ARGV 1 routine "HIDDEN" "" "")
  if(NOT routine_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "zdepl_add_routine(${name}): no source files are given")
  endif()
  add_library(${name} MODULE ${routine_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE zdepl::sdk)
  set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".so")
  if(routine_HIDDEN)
    set_target_properties(${name} PROPERTIES
      C_VISIBILITY_PRESET hidden CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  endif()
endfunction()

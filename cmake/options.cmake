# Compile and link options shared by everything in the tree.

# zdepl_warnings: warnings are errors; the set is the one both compilers keep without noise.
add_library(zdepl_warnings INTERFACE)
target_compile_options(zdepl_warnings INTERFACE
  -Wall -Wextra -Wshadow -Werror
  $<$<COMPILE_LANG_AND_ID:CXX,GNU>:-Wclobbered -Wconversion -Wno-missing-field-initializers>
  $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wconversion -Wno-sign-conversion
    -Wno-missing-field-initializers>)

# zdepl_runtime_free: code that needs libc alone. No exceptions, no type information, no
# constructors at load time, frame pointers kept so that every stack can be walked.
add_library(zdepl_runtime_free INTERFACE)
target_compile_options(zdepl_runtime_free INTERFACE
  -fno-omit-frame-pointer -fasynchronous-unwind-tables -fcf-protection=full
  -fvisibility=hidden
  $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti -fno-threadsafe-statics>)

set(ZDEPL_SANITIZE "" CACHE STRING "sanitizers, comma separated (address,undefined or thread)")
if(ZDEPL_SANITIZE)
  add_compile_options(-fsanitize=${ZDEPL_SANITIZE} -fno-sanitize-recover=all
    -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZDEPL_SANITIZE})
  # Clang's check of function types has its run-time part in the C++ one, also where C links.
  if(CMAKE_CXX_COMPILER_ID STREQUAL Clang)
    add_link_options(-fsanitize-link-c++-runtime)
  endif()
endif()

# Fuzzing is steered by the edges that a run reaches, so everything is built to report them.
if(ZDEPL_FUZZERS)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

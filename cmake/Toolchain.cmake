# Compiler settings that hold for every target.

option(VANTOR_FUZZ "Build the libFuzzer targets (clang only)" OFF)
set(VANTOR_SANITIZE "" CACHE STRING "Sanitizers for -fsanitize=, comma-separated")

# Written so that a newer compiler's new warnings don't break an installed release's build: the
# presets' compilers are what CI holds us to.
add_compile_options(-Wall -Wextra -Wpedantic -Werror)

# A debug build that is stepped through by hand can have -O0 from its own cache; tests under the
# sanitizers are three times as fast with -O1.
if(VANTOR_SANITIZE)
  add_compile_options(-fsanitize=${VANTOR_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -O1)
  add_link_options(-fsanitize=${VANTOR_SANITIZE})
endif()

# ccache keeps a second build, and a switch between presets, short. Precompiled headers need the two
# sloppinesses and -fpch-preprocess to be cached at all.
find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros ${CCACHE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fpch-preprocess>)
  endif()
endif()

# Debian's standalone Asio picks its allocator by include order otherwise, and frees with another
# than it allocated with.
add_compile_definitions(ASIO_DISABLE_STD_ALIGNED_ALLOC ASIO_NO_DEPRECATED)

# Compiler settings that hold for every target.

option(VANTOR_FUZZ "Build the libFuzzer targets (clang only)" OFF)
set(VANTOR_SANITIZE "" CACHE STRING "Sanitizers for -fsanitize=, comma-separated")

# Warnings are errors only if the preset says so (CMAKE_COMPILE_WARNING_AS_ERROR): another compiler,
# or other flags, may warn of things that its user can't change.
add_compile_options(-Wall -Wextra -Wpedantic)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND NOT VANTOR_SANITIZE MATCHES "address")
  # GCC 12 sees accesses out of bounds in the standard library's own copying of short strings when it
  # optimises, also with ThreadSanitizer's instrumentation.
  foreach(warning array-bounds restrict stringop-overflow stringop-overread)
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-${warning}>)
  endforeach()
endif()
# Below -O2 the compiler does not track the value of the standard library's variant, and warns that
# the rest is used before it is set.
string(TOUPPER "${CMAKE_BUILD_TYPE}" configuration)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND
   "${CMAKE_CXX_FLAGS} ${CMAKE_CXX_FLAGS_${configuration}} " MATCHES "-O[1g] ")
  add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wno-maybe-uninitialized>)
endif()

if(VANTOR_SANITIZE)
  add_compile_options(-fsanitize=${VANTOR_SANITIZE} -fno-sanitize-recover=all
                      -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VANTOR_SANITIZE})
  # The instrumentation hides initialisations from GCC's analysis (its manual says so); builds
  # without sanitizers keep the warning.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-maybe-uninitialized)
  endif()
endif()
# ThreadSanitizer does not understand fences; Asio's locks order all accesses that we rely on.
if(VANTOR_SANITIZE MATCHES "thread")
  add_compile_definitions(ASIO_DISABLE_FENCED_BLOCK)
endif()

# The coverage that guides the fuzzers; for all code, because a precompiled header must agree with
# its users.
if(VANTOR_FUZZ)
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

# ccache speeds up a second build, a switch between presets, and another checkout; for the latter it
# must see paths relative to the checkout. Precompiled headers need the two sloppinesses and
# -fpch-preprocess to be cached at all.
find_program(CCACHE ccache)
if(CCACHE)
  set(CMAKE_CXX_COMPILER_LAUNCHER
      ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros
      CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 CCACHE_PCH_EXTSUM=1 ${CCACHE})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-fpch-preprocess>)
  endif()
endif()

# A debugger uses it to find the debug information that packaging/install-program has separated.
add_link_options(-Wl,--build-id)

# mold links in a fifth of the time, which counts when a changed library is linked into forty
# programs.
find_program(MOLD mold)
if(MOLD)
  add_link_options(-fuse-ld=mold)
endif()

# Otherwise Debian's standalone Asio picks its allocator by include order, and frees memory with
# another one than it allocated with.
add_compile_definitions(ASIO_DISABLE_STD_ALIGNED_ALLOC ASIO_NO_DEPRECATED)

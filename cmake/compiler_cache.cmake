# Compiles with ccache if it is installed and no other launcher is set. Sources that use a precompiled header are not cached:
# GCC treats a header with another modification time as another file, and each new checkout has other times.
find_program(TAVRIN_CCACHE ccache)
mark_as_advanced(TAVRIN_CCACHE)
if(TAVRIN_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1
      ${TAVRIN_CCACHE})
endif()

# Compiles through ccache where it is installed and no other launcher is given. Sources with a precompiled header of ours
# are not cached: GCC takes a header for another file when its time differs, as it does in each new checkout.
find_program(TAVRIN_CCACHE ccache)
mark_as_advanced(TAVRIN_CCACHE)
if(TAVRIN_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1
      ${TAVRIN_CCACHE})
endif()

# Compiles through ccache where it is installed and no other launcher is given. Precompiled headers are cached too: their
# sources and flags decide about them, not the times of the files.
find_program(TAVRIN_CCACHE ccache)
mark_as_advanced(TAVRIN_CCACHE)
if(TAVRIN_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${CMAKE_COMMAND} -E env CCACHE_SLOPPINESS=pch_defines,time_macros
      CCACHE_BASEDIR=${CMAKE_SOURCE_DIR} CCACHE_NOHASHDIR=1 ${TAVRIN_CCACHE})
endif()

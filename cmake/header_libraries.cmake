# tavrin_header_library(target file): an interface target for a header-only library of the build machine; `file` is the
# header to include. A link in the build tree makes only the library's own folder visible, because a cross build must not see
# the other headers of the build machine.
function(tavrin_header_library target file)
  find_path(${target}_FOLDER ${file} REQUIRED NO_CMAKE_FIND_ROOT_PATH PATHS /usr/include)
  cmake_path(GET file PARENT_PATH folder)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/headers)
  file(CREATE_LINK ${${target}_FOLDER}/${folder} ${CMAKE_BINARY_DIR}/headers/${folder} SYMBOLIC COPY_ON_ERROR)
  add_library(${target} INTERFACE)
  target_include_directories(${target} SYSTEM INTERFACE ${CMAKE_BINARY_DIR}/headers)
endfunction()

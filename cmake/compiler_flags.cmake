# tavrin_compiler_flags(target): the language level, the warnings and the hardening that all our own code is built with.
find_package(Threads REQUIRED)

function(tavrin_compiler_flags target)
  target_compile_features(${target} PUBLIC cxx_std_20)
  set_target_properties(${target} PROPERTIES
    CXX_EXTENSIONS OFF
    CXX_VISIBILITY_PRESET hidden
    VISIBILITY_INLINES_HIDDEN ON
    POSITION_INDEPENDENT_CODE ON)
  if(WIN32)
    set_target_properties(${target} PROPERTIES PREFIX "")
    target_compile_definitions(${target} PRIVATE WIN32_LEAN_AND_MEAN NOMINMAX)
  endif()
  target_link_libraries(${target} PUBLIC Threads::Threads)
  if(MSVC)
    # Warnings are not errors here, because each version of the compiler has others. /Brepro keeps times out of the files.
    target_compile_options(${target} PRIVATE /W4 /permissive- /utf-8 /guard:cf /Brepro)
    target_link_options(${target} PRIVATE /guard:cf /CETCOMPAT /Brepro)
    # With the constexpr constructor of std::mutex, a host's msvcp140.dll of an older version crashes at the first lock.
    target_compile_definitions(${target} PRIVATE _DISABLE_CONSTEXPR_MUTEX_CONSTRUCTOR)
    return()
  endif()
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual -Wformat=2 -Wundef -fstack-protector-strong
    # The built files do not depend on the folder of the sources.
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
  if(WIN32)
    # All libraries but Windows' own are linked statically. No link time is written into the file.
    target_link_options(${target} PRIVATE -static -fstack-protector-strong -Wl,--no-insert-timestamp -Wl,--nxcompat
                        -Wl,--dynamicbase $<$<CONFIG:Release>:-s>)
  else()
    target_link_options(${target} PRIVATE -Wl,-z,relro -Wl,-z,now)
  endif()
  if(TAVRIN_SANITIZERS)
    target_compile_options(${target} PRIVATE -fsanitize=${TAVRIN_SANITIZERS} -fno-sanitize-recover=all
                           -fno-omit-frame-pointer)
    target_link_options(${target} PRIVATE -fsanitize=${TAVRIN_SANITIZERS})
  endif()
endfunction()

# tavrin_join_sources(target): where TAVRIN_JOIN_SOURCES is on, compiles the target's sources several at a time, so that
# the headers of the standard library are read, and checked by clang-tidy, a few times instead of a hundred. A name in an
# unnamed namespace must then be unique in its library. The Debian packages are built without it, which shows that
# each source includes what it uses.
option(TAVRIN_JOIN_SOURCES "Compile several sources at a time" OFF)
function(tavrin_join_sources target)
  set_target_properties(${target} PROPERTIES UNITY_BUILD ${TAVRIN_JOIN_SOURCES} UNITY_BUILD_BATCH_SIZE 10)
endfunction()

# tavrin_interface(target header ...): targets that link this one can include these headers of src/ and no others.
function(tavrin_interface target)
  set(folder ${CMAKE_BINARY_DIR}/interfaces/${target})
  foreach(header ${ARGN})
    cmake_path(GET header PARENT_PATH subfolder)
    file(MAKE_DIRECTORY ${folder}/${subfolder})
    file(CREATE_LINK ${CMAKE_SOURCE_DIR}/src/${header} ${folder}/${header} SYMBOLIC COPY_ON_ERROR)
  endforeach()
  target_include_directories(${target} INTERFACE ${folder})
endfunction()

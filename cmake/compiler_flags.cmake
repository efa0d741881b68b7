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
  endif()
  target_link_libraries(${target} PUBLIC Threads::Threads)
  if(MSVC)
    # Warnings are no errors here, as each version of the compiler has others. /Brepro leaves times out of the files.
    target_compile_options(${target} PRIVATE /W4 /permissive- /utf-8 /guard:cf /Brepro)
    target_link_options(${target} PRIVATE /guard:cf /CETCOMPAT /Brepro)
    # With the constexpr constructor of std::mutex, a host's msvcp140.dll of an older version crashes at the first lock.
    target_compile_definitions(${target} PRIVATE _DISABLE_CONSTEXPR_MUTEX_CONSTRUCTOR)
    return()
  endif()
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Werror -Wshadow -Wconversion -Wsign-conversion -Wold-style-cast -Wnon-virtual-dtor
    -Woverloaded-virtual -Wformat=2 -Wundef -fstack-protector-strong
    # The same bytes from every checkout, wherever it lies.
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
  if(WIN32)
    # Everything but Windows' own libraries is linked in, and no link time is written into the file.
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

# tavrin_precompile(target): the target's sources read the standard library once. They still include what they use:
# clang-tidy reads them without this header.
function(tavrin_precompile target)
  if(TAVRIN_SANITIZERS)
    target_precompile_headers(${target} PRIVATE
      <algorithm> <chrono> <filesystem> <fstream> <functional> <map> <memory> <mutex> <optional> <span> <sstream> <string>
      <string_view> <thread> <vector>)
  endif()
endfunction()

# The software token's libraries as SoftToken::gcrypt and SoftToken::ksba. On Windows they are static, so that they need not
# be shipped; elsewhere they are the system's shared libraries.
include(FindPackageHandleStandardArgs)

if(WIN32)
  set(CMAKE_FIND_LIBRARY_SUFFIXES .a .lib)
endif()
find_path(GCRYPT_INCLUDE_DIR gcrypt.h)
find_path(KSBA_INCLUDE_DIR ksba.h)
find_library(GCRYPT_LIBRARY gcrypt)
find_library(KSBA_LIBRARY ksba)
find_library(GPG_ERROR_LIBRARY gpg-error)
find_package_handle_standard_args(SoftTokenLibraries
  REQUIRED_VARS GCRYPT_LIBRARY KSBA_LIBRARY GPG_ERROR_LIBRARY GCRYPT_INCLUDE_DIR KSBA_INCLUDE_DIR)
mark_as_advanced(GCRYPT_LIBRARY KSBA_LIBRARY GPG_ERROR_LIBRARY GCRYPT_INCLUDE_DIR KSBA_INCLUDE_DIR)

if(SoftTokenLibraries_FOUND AND NOT TARGET SoftToken::gcrypt)
  set(systemLibraries ${GPG_ERROR_LIBRARY})
  if(WIN32)
    list(APPEND systemLibraries ws2_32 advapi32)
  endif()
  foreach(name gcrypt ksba)
    string(TOUPPER ${name} upper)
    add_library(SoftToken::${name} UNKNOWN IMPORTED)
    set_target_properties(SoftToken::${name} PROPERTIES
      IMPORTED_LOCATION ${${upper}_LIBRARY}
      INTERFACE_INCLUDE_DIRECTORIES ${${upper}_INCLUDE_DIR}
      INTERFACE_LINK_LIBRARIES "${systemLibraries}")
  endforeach()
endif()

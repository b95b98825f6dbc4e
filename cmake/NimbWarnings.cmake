# Warnings for the project's own targets: on, and treated as errors in CI
# builds (NIMB_WERROR) so they stay clean.
option(NIMB_WERROR "Treat warnings as errors" OFF)
function(nimb_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wnon-virtual-dtor
                                           -Wno-missing-field-initializers)
  # GCC 12 reports std::string concatenation at -O3 as overlapping memcpy
  # (GCC bug 105329), a false positive.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    target_compile_options(${target} PRIVATE -Wno-restrict)
  endif()
  # Under sanitizers GCC 12 reports uninitialised reads inside <regex> and
  # other library code that are not there.
  if(NIMB_SANITIZE AND CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${target} PRIVATE -Wno-maybe-uninitialized)
  endif()
  if(NIMB_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

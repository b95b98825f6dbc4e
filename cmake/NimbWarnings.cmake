# Warnings for the project's own targets: on, and treated as errors in CI
# builds (NIMB_WERROR) so they stay clean.
option(NIMB_WERROR "Treat warnings as errors" OFF)
function(nimb_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wnon-virtual-dtor
                                           -Wno-missing-field-initializers)
  if(NIMB_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# The warnings we hold our own code to; generated and third-party code is
# exempt. They are errors with VELQUIN_WERROR=ON (the Makefile and CI turn it
# on), so a release built with another compiler is not stopped by a new
# diagnostic.
function(velquin_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wold-style-cast
    -Wcast-align -Wunused -Woverloaded-virtual -Wnull-dereference -Wformat=2
    -Wimplicit-fallthrough)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # Fields marked GUARDED_BY are touched only under their mutex.
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(VELQUIN_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

# Warnings are errors in our own code; generated and third-party code is exempt.
function(velquin_warnings target)
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wpedantic -Werror -Wshadow -Wnon-virtual-dtor -Wold-style-cast
    -Wcast-align -Wunused -Woverloaded-virtual -Wnull-dereference -Wformat=2
    -Wimplicit-fallthrough)
endfunction()

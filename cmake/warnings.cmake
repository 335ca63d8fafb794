# zeb_enable_warnings(TARGET): the warnings that every line of this repository is built with.
function(zeb_enable_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wconversion -Wformat=2)
  # The sanitizers' own code misleads this warning; the other builds keep it.
  if(ZEB_SANITIZE)
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  endif()
  if(ZEB_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

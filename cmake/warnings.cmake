# zeb_enable_warnings(TARGET): enables the warnings with which all code of this repository is built.
function(zeb_enable_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wshadow -Wconversion -Wformat=2)
  # This warning is wrong about code that the sanitizers add. The other builds keep it.
  if(ZEB_SANITIZE)
    target_compile_options(${target} PRIVATE $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  endif()
  if(ZEB_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
endfunction()

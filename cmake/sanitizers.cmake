# zeb_enable_sanitizers(TARGET): builds and links the target with the sanitizers that ZEB_SANITIZE names, and
# instruments it if the fuzzers are built.
set(ZEB_SANITIZE "" CACHE STRING "Empty, address (with undefined behaviour), or thread")
set_property(CACHE ZEB_SANITIZE PROPERTY STRINGS "" address thread)
if(NOT ZEB_SANITIZE MATCHES "^(address|thread)?$")
  message(FATAL_ERROR "ZEB_SANITIZE is \"${ZEB_SANITIZE}\"; it takes address, thread, or nothing")
endif()

function(zeb_enable_sanitizers target)
  if(ZEB_BUILD_FUZZERS)
    target_compile_options(${target} PRIVATE -fsanitize=fuzzer-no-link)
  endif()
  if(NOT ZEB_SANITIZE)
    return()
  endif()
  string(REPLACE "address" "address,undefined" kinds "${ZEB_SANITIZE}")
  target_compile_options(${target} PRIVATE
    -fsanitize=${kinds} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  # Public, because a program that links the library's objects also needs the sanitizer's runtime.
  target_link_options(${target} PUBLIC -fsanitize=${kinds})
endfunction()

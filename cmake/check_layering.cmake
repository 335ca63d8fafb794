# Fails if an include goes in the wrong direction. Call it with -DROOT=<source tree> and -DSTAMP=<file to touch>. It
# also writes STAMP.d, so that the build repeats the check when a file or folder has changed.
cmake_minimum_required(VERSION 3.25)

# Files in the folder must not include anything that the pattern matches.
set(rules
  "mqtt|^(platform|tests|tools|examples)/"
  "util|^(mqtt|platform|tests|tools|examples)/"
  "platform|^(mqtt|tests|tools|examples)/"
)
# Applications include only one header of the library.
set(application_folders examples tools)
set(application_forbids "^(mqtt|util|platform|tests)/")
set(application_header "mqtt/mqtt_wrapper.h")
# Inside mqtt/ a file includes its own layer and those before it. What matches none is an operation.
set(mqtt_layers
  "^mqtt/(codec/|mqtt_wrapper[.]h$)"
  "^mqtt/(client_log|ack_queue|ping_watch|send_queue_watch|stream_assembler|inbound_qos2)[.]"
  "^mqtt/session[.]"
  "^mqtt/lifecycle[.]"
  "^mqtt/self_mqtt_impl[.]"
)
function(layer_of path result)
  set(layer 0)
  foreach(pattern IN LISTS mqtt_layers)
    if(path MATCHES "${pattern}")
      break()
    endif()
    math(EXPR layer "${layer} + 1")
  endforeach()
  set(${result} ${layer} PARENT_SCOPE)
endfunction()
set(openssl_folders "^(platform/linux|tests|benchmarks/compare)/")

set(looked_at "")
set(faults "")
foreach(folder IN ITEMS mqtt util platform tools examples tests fuzz benchmarks)
  if(NOT IS_DIRECTORY "${ROOT}/${folder}")
    continue()
  endif()
  set(forbidden "")
  foreach(rule IN LISTS rules)
    if(rule MATCHES "^${folder}[|](.*)$")
      set(forbidden "${CMAKE_MATCH_1}")
    endif()
  endforeach()
  if(folder IN_LIST application_folders)
    set(forbidden "${application_forbids}")
  endif()

  file(GLOB_RECURSE entries LIST_DIRECTORIES true RELATIVE "${ROOT}" "${ROOT}/${folder}/*")
  foreach(path IN ITEMS ${folder} LISTS entries)
    if(IS_DIRECTORY "${ROOT}/${path}")
      list(APPEND looked_at "${ROOT}/${path}")
      continue()
    elseif(NOT path MATCHES "[.](h|cpp)$")
      continue()
    endif()
    list(APPEND looked_at "${ROOT}/${path}")
    file(STRINGS "${ROOT}/${path}" lines REGEX "^[ \t]*#[ \t]*include[ \t]*[<\"]")
    foreach(line IN LISTS lines)
      string(REGEX REPLACE "^[^<\"]*[<\"]([^>\"]*).*$" "\\1" included "${line}")
      set(application_exception FALSE)
      if(folder IN_LIST application_folders AND included STREQUAL application_header)
        set(application_exception TRUE)
      endif()
      if(path MATCHES "^mqtt/" AND included MATCHES "^mqtt/")
        layer_of(${path} own)
        layer_of(${included} other)
        if(other GREATER own)
          list(APPEND faults "${path} includes ${included}: a layer above its own")
        endif()
      endif()
      if(forbidden AND included MATCHES "${forbidden}" AND NOT application_exception)
        list(APPEND faults "${path} includes ${included}: the wrong way round")
      elseif(included MATCHES "^openssl/" AND NOT path MATCHES "${openssl_folders}")
        list(APPEND faults "${path} includes ${included}: OpenSSL stays in platform/linux")
      elseif(included MATCHES "(^|/)[.][.]?/")
        list(APPEND faults "${path} includes ${included}: includes are written from the repository root")
      endif()
    endforeach()
  endforeach()
endforeach()

if(faults)
  list(JOIN faults "\n  " text)
  message(FATAL_ERROR "Layering:\n  ${text}")
endif()
list(TRANSFORM looked_at REPLACE " " "\\\\ ")
list(JOIN looked_at " \\\n  " text)
string(REPLACE " " "\\ " target "${STAMP}")
file(WRITE "${STAMP}.d" "${target}: \\\n  ${text}\n")
file(TOUCH "${STAMP}")

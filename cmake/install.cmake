# Installs the libraries, the public headers in a folder of their own, and the files with which CMake and pkg-config
# find them. Components: runtime, dev, tool.
set(zeb_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/zeb_mqtt")
foreach(library IN LISTS zeb_libraries)
  install(TARGETS ${library} EXPORT zeb_mqtt
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev
    ARCHIVE COMPONENT dev
    FILE_SET HEADERS DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/zeb_mqtt" COMPONENT dev)
endforeach()
install(EXPORT zeb_mqtt NAMESPACE zeb:: FILE zeb_mqtt-targets.cmake DESTINATION "${zeb_package_dir}" COMPONENT dev)

# Programs that link the static library must also link what it uses. The shared library does that itself.
set(zeb_find find_dependency)
set(zeb_options "")
set(zeb_private "")
set(zeb_libs " -pthread")
if(BUILD_SHARED_LIBS)
  set(zeb_find find_package)
  set(zeb_options " QUIET")
endif()
if(BUILD_SHARED_LIBS OR ZEB_BUILD_BOTH)
  set(zeb_private ".private")
  set(zeb_libs "\nLibs.private: -pthread")
endif()
set(zeb_find_dependencies "")
set(zeb_requires "")
if(ZEB_BUILD_BOTH OR NOT BUILD_SHARED_LIBS)
  set(zeb_find_dependencies "${zeb_find}(Threads${zeb_options})")
  if(ZEB_PLATFORM STREQUAL "linux")
    string(APPEND zeb_find_dependencies "\n${zeb_find}(OpenSSL${zeb_options})")
    set(zeb_requires "Requires${zeb_private}: libssl libcrypto")
  endif()
endif()
configure_package_config_file(cmake/zeb_mqtt-config.cmake.in zeb_mqtt-config.cmake
  INSTALL_DESTINATION "${zeb_package_dir}" NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(zeb_mqtt-config-version.cmake COMPATIBILITY SameMinorVersion)
install(FILES
  "${PROJECT_BINARY_DIR}/zeb_mqtt-config.cmake"
  "${PROJECT_BINARY_DIR}/zeb_mqtt-config-version.cmake"
  DESTINATION "${zeb_package_dir}" COMPONENT dev)

# pkg-config derives the prefix from the file's place, because it may be installed below another prefix than configured.
file(RELATIVE_PATH zeb_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(cmake/zeb_mqtt.pc.in zeb_mqtt.pc @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/zeb_mqtt.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig" COMPONENT dev)

# zeb_install_man(PAGE SECTION COMPONENT): fills in the version and compresses the page, as Debian requires.
function(zeb_install_man page section component)
  set(filled "${PROJECT_BINARY_DIR}/${page}.${section}")
  configure_file("${PROJECT_SOURCE_DIR}/docs/man/${page}.${section}" "${filled}" @ONLY)
  file(ARCHIVE_CREATE OUTPUT "${filled}.gz" PATHS "${filled}" FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9)
  install(FILES "${filled}.gz" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}" COMPONENT ${component})
endfunction()
zeb_install_man(zeb_mqtt 3 dev)
if(TARGET zebmqtt)
  zeb_install_man(zebmqtt 1 tool)
endif()

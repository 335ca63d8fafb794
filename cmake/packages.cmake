# Debian packages, one per component, made by `cpack` (scripts/package). Configure with CMAKE_INSTALL_PREFIX=/usr to
# get the folders that Debian requires.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zeb-mqtt)
set(CPACK_PACKAGE_CONTACT "The zeb_mqtt maintainers <maintainers@zeb-mqtt.invalid>")
set(CPACK_PACKAGE_VENDOR zeb_mqtt)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}") # where the tool's library is
set(zeb_runtime_package libzeb-mqtt${ZEB_ABI})
set(zeb_same_runtime "${zeb_runtime_package} (= ${PROJECT_VERSION})")

set(CPACK_COMPONENTS_ALL runtime dev)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${zeb_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA "${PROJECT_SOURCE_DIR}/cmake/debian/triggers")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS ca-certificates)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "An application links it and drives one broker connection per client object
through a small blocking interface: start, publish, subscribe, stop.

This package holds the shared library.")
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libzeb-mqtt-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "${zeb_same_runtime}, libssl-dev")
set(CPACK_COMPONENT_DEV_DESCRIPTION "An application links it and drives one broker connection per client object
through a small blocking interface: start, publish, subscribe, stop.

This package holds the headers, the static library, and what CMake and
pkg-config need to find them.")
set(zeb_packages dev:libzeb-mqtt-dev runtime:${zeb_runtime_package})
if(TARGET zebmqtt)
  list(APPEND CPACK_COMPONENTS_ALL tool)
  list(APPEND zeb_packages tool:zebmqtt)
  set(CPACK_DEBIAN_TOOL_PACKAGE_NAME zebmqtt)
  set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION net)
  set(CPACK_DEBIAN_TOOL_PACKAGE_DEPENDS "${zeb_same_runtime}")
  set(CPACK_COMPONENT_TOOL_DESCRIPTION "The command-line client: it publishes to a broker and prints what it subscribed to.")
endif()

# The Debian changelog and the copyright belong in each package.
string(TIMESTAMP zeb_now "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(cmake/debian/changelog.in changelog @ONLY)
file(ARCHIVE_CREATE OUTPUT "${PROJECT_BINARY_DIR}/changelog.gz" PATHS "${PROJECT_BINARY_DIR}/changelog"
  FORMAT raw COMPRESSION GZip COMPRESSION_LEVEL 9)
foreach(package IN LISTS zeb_packages)
  string(REPLACE ":" ";" package "${package}")
  list(GET package 0 component)
  list(GET package 1 name)
  install(FILES "${PROJECT_BINARY_DIR}/changelog.gz" "${PROJECT_SOURCE_DIR}/cmake/debian/copyright"
    DESTINATION share/doc/${name} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()
include(CPack)

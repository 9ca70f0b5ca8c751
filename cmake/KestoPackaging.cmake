# What a toolkit's build finds once the plug-in is installed: the header as an
# imported target and the plug-in's path (find_package(kestobearer)), the same
# through pkg-config (kestobearer.pc), and a Debian package of it all with the
# host tool, the udev rules and the documentation (cpack -G DEB).
include(CMakePackageConfigHelpers)

set(KESTO_PLUGIN_FILE_NAME ${CMAKE_SHARED_MODULE_PREFIX}kestobearer-USBAAP${CMAKE_SHARED_MODULE_SUFFIX})
set(KESTO_CMAKE_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kestobearer)
set(KESTO_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The header, with the generated version header beside it: kestobearer::headers
# for consumers, usable in this tree too.
add_library(kestobearer_headers INTERFACE)
add_library(kestobearer::headers ALIAS kestobearer_headers)
set_target_properties(kestobearer_headers PROPERTIES EXPORT_NAME headers)
target_sources(kestobearer_headers INTERFACE FILE_SET HEADERS
  BASE_DIRS ${PROJECT_SOURCE_DIR}/include ${KESTO_GENERATED_INCLUDE_DIR}
  FILES ${PROJECT_SOURCE_DIR}/include/kesto/KestoBearer.h
        ${KESTO_GENERATED_INCLUDE_DIR}/kesto/KestoBearerVersion.h)
install(TARGETS kestobearer_headers EXPORT kestobearerTargets FILE_SET HEADERS)
install(EXPORT kestobearerTargets NAMESPACE kestobearer:: DESTINATION ${KESTO_CMAKE_PACKAGE_DIR})

# The plug-in ships stripped; its debug information goes to a file of its own,
# in the .debug directory beside it where gdb looks whatever the prefix.
set(KESTO_PLUGIN_DEBUG_FILE $<TARGET_FILE:kestobearer-USBAAP>.debug)
add_custom_command(TARGET kestobearer-USBAAP POST_BUILD
  COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE:kestobearer-USBAAP> ${KESTO_PLUGIN_DEBUG_FILE}
  VERBATIM)
install(TARGETS kestobearer-USBAAP LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# An up-to-date plug-in is not copied again, so any old link is dropped before
# the new one is added.
install(CODE "
  set(plugin \"\$ENV{DESTDIR}\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/${KESTO_PLUGIN_FILE_NAME}\")
  execute_process(COMMAND \"${CMAKE_OBJCOPY}\" --strip-debug --strip-unneeded --remove-section=.gnu_debuglink
                          \"\${plugin}\" COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND \"${CMAKE_OBJCOPY}\" \"--add-gnu-debuglink=${KESTO_PLUGIN_DEBUG_FILE}\"
                          \"\${plugin}\" COMMAND_ERROR_IS_FATAL ANY)")
# Installed with the rest, left out of the Debian package.
install(FILES ${KESTO_PLUGIN_DEBUG_FILE} DESTINATION ${CMAKE_INSTALL_LIBDIR}/.debug COMPONENT debug)

# CMake package configuration.
set(KESTO_PLUGIN_INSTALL_PATH ${CMAKE_INSTALL_LIBDIR}/${KESTO_PLUGIN_FILE_NAME})
configure_package_config_file(cmake/kestobearerConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/kestobearerConfig.cmake
  INSTALL_DESTINATION ${KESTO_CMAKE_PACKAGE_DIR}
  PATH_VARS KESTO_PLUGIN_INSTALL_PATH)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/kestobearerConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestobearerConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/kestobearerConfigVersion.cmake
        DESTINATION ${KESTO_CMAKE_PACKAGE_DIR})

# pkg-config file, relocatable: its prefix is found from where it lies.
file(RELATIVE_PATH KESTO_PKGCONFIG_TO_PREFIX ${CMAKE_INSTALL_PREFIX}/${KESTO_PKGCONFIG_DIR} ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" KESTO_PKGCONFIG_TO_PREFIX "${KESTO_PKGCONFIG_TO_PREFIX}")
configure_file(cmake/kestobearer.pc.in ${CMAKE_CURRENT_BINARY_DIR}/kestobearer.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/kestobearer.pc DESTINATION ${KESTO_PKGCONFIG_DIR})

# Documentation, and the example host as the integrators' starting point.
install(FILES README.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES tools/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR} RENAME README.tools.md)
install(FILES examples/kesto-echo-host.c examples/README.md DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)

# Debian package: everything but the debug component.
set(CPACK_PACKAGE_NAME kestobearer)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Kesto")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "USB Android-accessory bearer plug-in for the Kesto toolkit")
set(CPACK_PACKAGE_CONTACT "Kesto bearer developers <kesto-bearer@localhost>" CACHE STRING
  "Maintainer named in the Debian package")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# The host tool too ships stripped; the plug-in keeps its link to its debug file.
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
set(CPACK_COMPONENTS_ALL Unspecified)
set(CPACK_DEBIAN_PACKAGE_NAME kestobearer)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
if(CMAKE_CROSSCOMPILING)
  # dpkg-shlibdeps knows only the machine's own architecture.
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libusb-1.0-0 (>= 2:1.0.22), libc6, libstdc++6, libgcc-s1")
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE armhf)
  endif()
else()
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
endif()
include(CPack)

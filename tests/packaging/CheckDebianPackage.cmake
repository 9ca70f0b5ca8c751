# Makes the Debian package and checks what it holds: the plug-in (stripped,
# no debug file), the header, the CMake and pkg-config files, the host tool,
# the udev rules and the documentation, at the project's version.
# Usage: cmake -DBUILD_DIR=<build> -DWORK_DIR=<scratch> -DCPACK=<cpack> -DREADELF=<readelf>
#              -P CheckDebianPackage.cmake

include(${CMAKE_CURRENT_LIST_DIR}/RunOrFail.cmake)

file(REMOVE_RECURSE ${WORK_DIR})
run(${CPACK} -G DEB --config ${BUILD_DIR}/CPackConfig.cmake -B ${WORK_DIR})
file(GLOB package ${WORK_DIR}/*.deb)
list(LENGTH package count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one package, cpack made: ${package}")
endif()

run(dpkg-deb --field ${package} Package Version Depends)
if(NOT output MATCHES "Package: kestobearer\nVersion: ${VERSION}\nDepends: [^\n]*libusb-1\\.0-0")
  message(FATAL_ERROR "unexpected control fields:\n${output}")
endif()

run(dpkg-deb --contents ${package})
set(listing "${output}")
foreach(entry
    "/usr/lib/([^ ]*/)?libkestobearer-USBAAP\\.so\n"
    "/usr/include/kesto/KestoBearer\\.h\n"
    "/usr/include/kesto/KestoBearerVersion\\.h\n"
    "/usr/lib/([^ ]*/)?cmake/kestobearer/kestobearerConfig\\.cmake\n"
    "/usr/lib/([^ ]*/)?cmake/kestobearer/kestobearerConfigVersion\\.cmake\n"
    "/usr/lib/([^ ]*/)?cmake/kestobearer/kestobearerTargets\\.cmake\n"
    "/usr/lib/([^ ]*/)?pkgconfig/kestobearer\\.pc\n"
    "/usr/bin/kesto-host\n"
    "/udev/[^ ]*\\.rules\n"
    "/usr/share/doc/kestobearer/README\\.md\n"
    "/usr/share/doc/kestobearer/examples/kesto-echo-host\\.c\n")
  if(NOT listing MATCHES "${entry}")
    message(FATAL_ERROR "the package lacks ${entry}:\n${listing}")
  endif()
endforeach()
if(listing MATCHES "\\.debug\n")
  message(FATAL_ERROR "the debug file belongs beside the installation, not in the package:\n${listing}")
endif()

run(dpkg-deb --extract ${package} ${WORK_DIR}/root)
file(GLOB_RECURSE plugin ${WORK_DIR}/root/usr/lib/libkestobearer-USBAAP.so)
run(${READELF} -S ${plugin})
if(output MATCHES "\\.debug_info" OR NOT output MATCHES "\\.gnu_debuglink")
  message(FATAL_ERROR "the packaged plug-in is not stripped with a link to its debug file:\n${output}")
endif()
message(STATUS "${listing}")

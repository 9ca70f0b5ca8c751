# QNX Neutrino on 32-bit ARM (armv7le), the target. Needs a QNX SDP with
# QNX_HOST and QNX_TARGET set (source qnxsdp-env.sh) and a libusb-1.0 built for
# the target under QNX_TARGET (libusb.h in usr/include/libusb-1.0, the library in
# armle-v7/usr/lib): the plug-in links that one, found only under these roots,
# and configuring stops if there is none. Not exercised on the Debian build
# machines.
if(NOT DEFINED ENV{QNX_TARGET} OR NOT DEFINED ENV{QNX_HOST})
  message(FATAL_ERROR "QNX_HOST and QNX_TARGET are not set: source the SDP's qnxsdp-env.sh first")
endif()
set(CMAKE_SYSTEM_NAME QNX)
set(CMAKE_SYSTEM_PROCESSOR armv7)
set(arch gcc_ntoarmv7le)
set(CMAKE_C_COMPILER qcc)
set(CMAKE_C_COMPILER_TARGET ${arch})
set(CMAKE_CXX_COMPILER q++)
set(CMAKE_CXX_COMPILER_TARGET ${arch})
set(CMAKE_SYSROOT $ENV{QNX_TARGET})
set(CMAKE_FIND_ROOT_PATH $ENV{QNX_TARGET} $ENV{QNX_TARGET}/armle-v7)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

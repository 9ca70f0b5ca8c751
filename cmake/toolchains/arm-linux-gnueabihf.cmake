# 32-bit ARM (hard float) Linux, built with Debian's cross compiler against a
# private sysroot of Debian's armhf libusb, umockdev and GoogleTest (made by
# scripts/setup-debian), and run under qemu-user.
#
# The sysroot: -DKESTO_ARM_SYSROOT=<dir>, the environment's KESTO_ARM_SYSROOT,
# or build/sysroot-armhf in the source tree.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

if(NOT KESTO_ARM_SYSROOT)
  set(KESTO_ARM_SYSROOT "$ENV{KESTO_ARM_SYSROOT}")
endif()
if(NOT KESTO_ARM_SYSROOT)
  cmake_path(ABSOLUTE_PATH CMAKE_CURRENT_LIST_DIR NORMALIZE OUTPUT_VARIABLE here)
  cmake_path(GET here PARENT_PATH cmake_dir)
  cmake_path(GET cmake_dir PARENT_PATH source_dir)
  set(KESTO_ARM_SYSROOT "${source_dir}/build/sysroot-armhf")
endif()
set(KESTO_ARM_SYSROOT "${KESTO_ARM_SYSROOT}" CACHE PATH "Private armhf sysroot (scripts/setup-debian makes it)")
# try_compile projects read this file again and need the same answer.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES KESTO_ARM_SYSROOT)

# The cross toolchain's own libc and libstdc++ first, then the sysroot.
set(kesto_arm_libc /usr/arm-linux-gnueabihf)
set(CMAKE_FIND_ROOT_PATH ${kesto_arm_libc} ${KESTO_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config answers from the sysroot alone, never from the build machine.
set(ENV{PKG_CONFIG_LIBDIR}
  "${KESTO_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${KESTO_ARM_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${KESTO_ARM_SYSROOT}")
set(ENV{PKG_CONFIG_PATH} "")

# The sysroot's libraries name their own dependencies (GLib's, libudev's),
# which the linker must find there too.
set(kesto_arm_libdirs
  ${KESTO_ARM_SYSROOT}/lib/arm-linux-gnueabihf
  ${KESTO_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf)
set(kesto_arm_link "")
foreach(dir IN LISTS kesto_arm_libdirs)
  string(APPEND kesto_arm_link " -Wl,-rpath-link,${dir}")
endforeach()
set(CMAKE_EXE_LINKER_FLAGS_INIT "${kesto_arm_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${kesto_arm_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${kesto_arm_link}")

# Programs start through the target's loader under qemu-user (there is no
# binfmt_misc entry to start them by themselves). Not qemu's -L: it remaps /
# as well, and libudev's walk from / then escapes umockdev's redirected /sys.
# The loader takes LD_PRELOAD from the environment, so umockdev's preload is
# given the usual way.
list(JOIN kesto_arm_libdirs ":" kesto_arm_library_path)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm-static ${kesto_arm_libc}/lib/ld-linux-armhf.so.3
  --library-path ${kesto_arm_libc}/lib:${kesto_arm_library_path})

# Notes about a 2017 ABI change in passing some structures; nothing here crosses that ABI.
set(CMAKE_CXX_FLAGS_INIT "-Wno-psabi")

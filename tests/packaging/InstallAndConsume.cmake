# Installs the build into a scratch prefix and builds a toolkit's first program
# against it twice, as a CMake project would (find_package(kestobearer)) and as
# a plain makefile would (pkg-config); each program loads the plug-in from the
# path its build was given. The installed plug-in must be stripped, its debug
# information in a file of its own that the plug-in links to.
# Usage: cmake -DBUILD_DIR=<build> -DWORK_DIR=<scratch> -DCONSUMER=<consumer source>
#              -DCC=<C compiler> -DREADELF=<readelf> -P InstallAndConsume.cmake

include(${CMAKE_CURRENT_LIST_DIR}/RunOrFail.cmake)

file(REMOVE_RECURSE ${WORK_DIR})
set(prefix ${WORK_DIR}/prefix)
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# Only the scratch prefix: a copy installed on the machine must not answer.
set(ENV{PKG_CONFIG_LIBDIR} "")
file(GLOB_RECURSE pc_files ${prefix}/*/kestobearer.pc)
get_filename_component(pc_dir "${pc_files}" DIRECTORY)
set(ENV{PKG_CONFIG_PATH} ${pc_dir})

run(${CMAKE_COMMAND} -S ${CONSUMER} -B ${WORK_DIR}/consumer -DCMAKE_PREFIX_PATH=${prefix}
    -DCMAKE_FIND_USE_PACKAGE_REGISTRY=OFF -DEXPECTED_PREFIX=${prefix} -DCMAKE_C_COMPILER=${CC})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/consumer)
run(${WORK_DIR}/consumer/load-plugin)
message(STATUS "find_package: ${output}")

run(pkg-config --cflags kestobearer)
string(STRIP "${output}" cflags)
separate_arguments(cflags UNIX_COMMAND "${cflags}")
run(pkg-config --variable=plugindir kestobearer)
string(STRIP "${output}" plugindir)
run(${CC} -std=c99 -pedantic -Wall -Wextra -Werror ${cflags} "-DKESTO_PLUGIN=\"${plugindir}/libkestobearer-USBAAP.so\""
    ${CONSUMER}/LoadPlugin.c -ldl -o ${WORK_DIR}/load-plugin-pc)
run(${WORK_DIR}/load-plugin-pc)
message(STATUS "pkg-config: ${output}")

file(GLOB_RECURSE plugin ${prefix}/*/libkestobearer-USBAAP.so)
run(${READELF} -S ${plugin})
if(output MATCHES "\\.debug_info" OR NOT output MATCHES "\\.gnu_debuglink")
  message(FATAL_ERROR "the installed plug-in is not stripped with a link to its debug file:\n${output}")
endif()
file(GLOB_RECURSE debug_file ${prefix}/*/libkestobearer-USBAAP.so.debug)
run(${READELF} -S ${debug_file})
if(NOT output MATCHES "\\.debug_info")
  message(FATAL_ERROR "no debug information in '${debug_file}'")
endif()

# Runs a test under umockdev's preload, which in-process emulated phones need.
# With AddressSanitizer or ThreadSanitizer in the build, their runtime must come
# first in LD_PRELOAD, ahead of umockdev's; ThreadSanitizer also gets told
# about the uninstrumented umockdev and GLib (tsan.supp says why).
#
#   emulated_phone_add_test(NAME name [TIMEOUT seconds] COMMAND program args...)
set(EMULATED_PHONE_TSAN_SUPPRESSIONS ${CMAKE_CURRENT_LIST_DIR}/tsan.supp)

function(emulated_phone_add_test)
  cmake_parse_arguments(ARG "" "NAME;TIMEOUT" "COMMAND" ${ARGN})
  set(preload "libumockdev-preload.so.0")
  set(options "")
  if(KESTO_SANITIZE MATCHES "thread")
    set(options "TSAN_OPTIONS=suppressions=${EMULATED_PHONE_TSAN_SUPPRESSIONS}")
  endif()
  foreach(sanitizer address thread)
    if(KESTO_SANITIZE MATCHES "${sanitizer}")
      if(sanitizer STREQUAL "address")
        set(runtime libasan.so)
      else()
        set(runtime libtsan.so)
      endif()
      execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=${runtime}
                      OUTPUT_VARIABLE runtime_path OUTPUT_STRIP_TRAILING_WHITESPACE)
      set(preload "${runtime_path}:${preload}")
    endif()
  endforeach()
  if(CMAKE_CROSSCOMPILING)
    # The target's program starts only through the emulator, whose loader
    # takes the preload from the environment.
    add_test(NAME ${ARG_NAME} COMMAND ${CMAKE_CROSSCOMPILING_EMULATOR} ${ARG_COMMAND})
    set_tests_properties(${ARG_NAME} PROPERTIES ENVIRONMENT_MODIFICATION "LD_PRELOAD=set:${preload}")
  else()
    add_test(NAME ${ARG_NAME} COMMAND env "LD_PRELOAD=${preload}" ${options} ${ARG_COMMAND})
  endif()
  if(ARG_TIMEOUT)
    set_tests_properties(${ARG_NAME} PROPERTIES TIMEOUT ${ARG_TIMEOUT})
  endif()
endfunction()

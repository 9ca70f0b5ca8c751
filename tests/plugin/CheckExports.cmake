# Fails unless the plug-in defines exactly one dynamic symbol, its entry point,
# and pulls in libusb-1.0 as a dependency. Anything else exported could bind
# to a same-named symbol of the toolkit or of another plug-in in its process.
# Usage: cmake -DPLUGIN=<.so> -DNM=<nm> -DREADELF=<readelf> -P CheckExports.cmake

execute_process(COMMAND ${NM} -D --defined-only ${PLUGIN}
  OUTPUT_VARIABLE symbols RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${NM} could not read ${PLUGIN}")
endif()
string(REGEX MATCHALL "[^\n]+" lines "${symbols}")
set(exported "")
foreach(line IN LISTS lines)
  # "<address> <type> <name>": keep type and name.
  string(REGEX MATCH "[^ ]+ [^ ]+$" entry "${line}")
  list(APPEND exported "${entry}")
endforeach()
if(NOT exported STREQUAL "T KestoBearerInitialize")
  list(JOIN exported "\n  " shown)
  message(FATAL_ERROR "expected only the function KestoBearerInitialize, found:\n  ${shown}")
endif()

execute_process(COMMAND ${READELF} -d ${PLUGIN}
  OUTPUT_VARIABLE dynamic RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "${READELF} could not read ${PLUGIN}")
endif()
if(NOT dynamic MATCHES "\\(NEEDED\\)[^\n]*\\[libusb-1\\.0\\.so\\.0\\]")
  message(FATAL_ERROR "libusb-1.0.so.0 is not among the plug-in's NEEDED entries:\n${dynamic}")
endif()

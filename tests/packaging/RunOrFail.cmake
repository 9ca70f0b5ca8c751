# run(command args...): runs a command, failing the script with its output
# when it fails; sets `output` in the caller to what it printed.
function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE failed OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(failed)
    list(JOIN ARGN " " command)
    message(FATAL_ERROR "${command}\n${out}")
  endif()
  set(output "${out}" PARENT_SCOPE)
endfunction()

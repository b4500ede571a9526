# palimbo_built_for_windows(VARIABLE SCRIPT DESCRIPTION): the folder of a library built for
# Windows by scripts/SCRIPT, which builds it once into a cache outside the tree and prints the
# folder on its last line; kept in the cache variable VARIABLE, which a user may also set.
function(palimbo_built_for_windows variable script description)
  if(${variable})
    return()
  endif()
  execute_process(COMMAND ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/../scripts/${script}
                  OUTPUT_VARIABLE built RESULT_VARIABLE status)
  if(NOT status EQUAL 0)
    message(FATAL_ERROR "scripts/${script} failed (${status})")
  endif()
  string(REGEX REPLACE ".*\n([^\n]+)\n?$" "\\1" built "\n${built}")
  set(${variable} ${built} CACHE PATH "${description}")
endfunction()

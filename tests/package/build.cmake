# Makes the package anew; what cpack says appears only when it fails.
file(REMOVE_RECURSE ${PACKAGE_DIR})
execute_process(COMMAND ${CPACK} WORKING_DIRECTORY ${BUILD_DIR} RESULT_VARIABLE STATUS
                OUTPUT_VARIABLE SAID ERROR_VARIABLE SAID)
if(NOT STATUS EQUAL 0)
  message(FATAL_ERROR "cpack failed:\n${SAID}")
endif()

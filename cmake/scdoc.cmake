# cmake -DSCDOC=... -DIN=page.N.scd -DOUT=page.N -P scdoc.cmake
execute_process(COMMAND ${SCDOC} INPUT_FILE ${IN} OUTPUT_FILE ${OUT} RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  file(REMOVE ${OUT})
  message(FATAL_ERROR "scdoc failed on ${IN}")
endif()

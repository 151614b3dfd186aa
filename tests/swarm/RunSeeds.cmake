# One block of the swarm's CI seeds: runs obd-swarm for every seed of FIRST..LAST over HOURS
# vehicle hours each, and fails with the result line of every seed that did not pass.
#   cmake -DSWARM=obd-swarm -DLAUNCHER="qemu-arm|-L|..." -DFIRST=1 -DLAST=10 -DHOURS=1 -P RunSeeds.cmake
string(REPLACE "|" ";" launcher "${LAUNCHER}")
set(failed "")
foreach(seed RANGE ${FIRST} ${LAST})
  # stderr carries the plug-in's own prints: the result line alone says what happened.
  execute_process(COMMAND ${launcher} ${SWARM} --seed ${seed} --hours ${HOURS}
                  OUTPUT_VARIABLE line ERROR_QUIET RESULT_VARIABLE code)
  if(NOT code EQUAL 0)
    if(line STREQUAL "")
      set(line "seed ${seed}: exit status ${code} without a result line\n")
    endif()
    string(APPEND failed "${line}")
  endif()
endforeach()
if(NOT failed STREQUAL "")
  # The lines as the program printed them (an error message would wrap them).
  message(NOTICE "${failed}")
  message(FATAL_ERROR "swarm seeds ${FIRST}..${LAST} over ${HOURS} h: a seed failed")
endif()
message(STATUS "swarm seeds ${FIRST}..${LAST} over ${HOURS} h: all ok")

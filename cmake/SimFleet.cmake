# The simulator's tests run the simulator program too (a fleet listing its gateways).
if(TARGET tamrik_sim_tests AND TARGET tamrik-sim)
  add_dependencies(tamrik_sim_tests tamrik-sim)
  target_compile_definitions(tamrik_sim_tests PRIVATE TAMRIK_SIM_PROGRAM="$<TARGET_FILE:tamrik-sim>")
endif()

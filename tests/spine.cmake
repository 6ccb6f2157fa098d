# The add-in's shell, request port and dispatcher, end to end through the real
# process. addin_process.h is the harness other areas' end-to-end tests use.
velmora_test(spine_e2e_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/spine_e2e_test.cc
  LIBS velmora_client archive)
add_dependencies(spine_e2e_tests VelmoraAddin)

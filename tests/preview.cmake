# The recognition preview (request 103) end to end through the real add-in.
velmora_test(preview_e2e_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/preview_e2e_test.cc
  LIBS velmora_client archive)
add_dependencies(preview_e2e_tests VelmoraAddin)

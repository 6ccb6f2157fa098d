# The recognition service's end-to-end tests.
# Requests 101 and 102 through the real add-in, on generated markings.
velmora_test(ocr_e2e_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/ocr_e2e_test.cc
  LIBS velmora_client archive ocr_markings)
add_dependencies(ocr_e2e_tests VelmoraAddin)

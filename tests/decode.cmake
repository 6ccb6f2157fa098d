# The code reader: vision operators and the reading service on generated
# symbol images, and request 111 end to end through the real add-in.
velmora_test(decode_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/decode_code_test.cc ${CMAKE_CURRENT_SOURCE_DIR}/decode_service_test.cc
  LIBS decode decode_symbol_gen PkgConfig::ZXING)
velmora_test(decode_e2e_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/decode_e2e_test.cc
  LIBS velmora_client archive decode_symbol_gen)
add_dependencies(decode_e2e_tests VelmoraAddin)

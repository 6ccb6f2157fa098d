# What an integrator meets, end to end: installation into a temporary prefix,
# termination signals, hostile request headers, the image size limit, the
# request log, and the command-line client against the real add-in.
velmora_test(integ_e2e_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/integ_e2e_test.cc
  LIBS velmora_client archive ocr_markings decode_symbol_gen opencv_imgproc)
target_include_directories(integ_e2e_tests PRIVATE ${CMAKE_SOURCE_DIR}/bench)
target_compile_definitions(integ_e2e_tests PRIVATE
  VELMORA_CLI_PATH="$<TARGET_FILE:velmora>"
  VELMORA_BINARY_DIR="${CMAKE_BINARY_DIR}"
  VELMORA_CMAKE_COMMAND="${CMAKE_COMMAND}")
add_dependencies(integ_e2e_tests VelmoraAddin velmora)

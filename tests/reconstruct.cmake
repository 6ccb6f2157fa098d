# velmora-3d reconstruct, end to end through the real program.
velmora_test(reconstruct_tool_e2e_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/reconstruct_tool_e2e_test.cc
  LIBS calibration_store synthetic_rig property_list opencv_imgcodecs opencv_imgproc)
add_dependencies(reconstruct_tool_e2e_tests velmora-3d)
target_include_directories(reconstruct_tool_e2e_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(reconstruct_tool_e2e_tests PRIVATE VELMORA_3D_PATH="$<TARGET_FILE:velmora-3d>")

# The side-camera server and the rig tool, end to end through the real programs.
velmora_test(sidecam_e2e_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/sidecam_e2e_test.cc
  LIBS sidecam_client calibration_store synthetic_rig opencv_imgcodecs)
add_dependencies(sidecam_e2e_tests velmora-sidecam)
target_include_directories(sidecam_e2e_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(sidecam_e2e_tests PRIVATE VELMORA_SIDECAM_PATH="$<TARGET_FILE:velmora-sidecam>")

velmora_test(rig_tool_e2e_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/rig_tool_e2e_test.cc
  LIBS calibration_store synthetic_rig property_list opencv_imgcodecs)
add_dependencies(rig_tool_e2e_tests velmora-3d)
target_include_directories(rig_tool_e2e_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(rig_tool_e2e_tests PRIVATE VELMORA_3D_PATH="$<TARGET_FILE:velmora-3d>")

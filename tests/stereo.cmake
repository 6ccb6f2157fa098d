# The stereo request end to end: the real add-in on Xvfb with the real
# side-camera server and its synthetic rig.
velmora_test(stereo_e2e_tests
  SOURCES ${CMAKE_CURRENT_SOURCE_DIR}/stereo_e2e_test.cc
  LIBS velmora_client archive vision_model3d opencv_imgcodecs opencv_core)
add_dependencies(stereo_e2e_tests VelmoraAddin velmora-sidecam velmora-3d)
target_include_directories(stereo_e2e_tests PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
target_compile_definitions(stereo_e2e_tests PRIVATE VELMORA_SIDECAM_PATH="$<TARGET_FILE:velmora-sidecam>"
  VELMORA_3D_PATH="$<TARGET_FILE:velmora-3d>")
set_tests_properties(stereo_e2e_tests PROPERTIES TIMEOUT 600)

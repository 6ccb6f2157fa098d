# The side-camera exchange ('3D01', eight views) against the real velmora-sidecam.
add_executable(bench_sidecam ${CMAKE_CURRENT_LIST_DIR}/sidecam_bench.cc)
target_include_directories(bench_sidecam PRIVATE "${CMAKE_SOURCE_DIR}/tests")
target_link_libraries(bench_sidecam PRIVATE sidecam_client synthetic_rig opencv_imgcodecs)
target_compile_definitions(bench_sidecam PRIVATE VELMORA_SIDECAM_PATH="$<TARGET_FILE:velmora-sidecam>")
add_dependencies(bench_sidecam velmora-sidecam)

# Region operators of the vision library: connection/select_shape, threshold,
# morphology.
add_executable(bench_region ${CMAKE_CURRENT_LIST_DIR}/region_bench.cc)
target_link_libraries(bench_region PRIVATE vision_region opencv_imgproc benchmark::benchmark)

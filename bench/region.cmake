# Region operators of the vision library: connection/select_shape, threshold,
# morphology.
if(TARGET benchmark::benchmark)
  add_executable(bench_region ${CMAKE_CURRENT_LIST_DIR}/region_bench.cc)
  target_link_libraries(bench_region PRIVATE vision_region opencv_imgproc benchmark::benchmark)
endif()
